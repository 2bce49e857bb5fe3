#pragma once

#include <string>

#include "mixer/core/Api.h"
#include "mixer/core/StreamInfo.h"

namespace mixer {

// Stream description files: a client announces a stream by writing a seven-line text
// file named after the stream into the stream directory; the discovery thread reads it
// when the writer closes it. Lines, each ended by one line feed: name, type, id, rate,
// numCh, sampleSize, meta. Numbers are plain decimal; no line may exceed 199 bytes.
//
// Threading: the functions keep no state and take no locks. Writer and reader are
// synchronised only by the close of the file: nobody reads a file before its writer
// closed it.

// The stream directory and the liveness probe inside it.
MIXER_API extern const char* const kStreamDir;       // "/var/run/mixer"
MIXER_API extern const char* const kPingFileName;    // "Ping"

// Makes sure the stream directory exists as a directory (mode 0755), replacing a
// non-directory in its place. True when it is a directory on return.
MIXER_API bool UtilCheckDir();

// Reads <dir>/fileName into info (a "/" is always put between the two).
//   Success: 0; every field is set from the file. Missing lines give empty strings and
//            zeros; a line over 199 bytes keeps its first 199 and every later line
//            reads empty or 0. Numbers are not validated (atoi).
//   Failure: -1 when the file cannot be opened; info is untouched. Only a regular file
//            named by one plain component is read: a symbolic link, FIFO, device node
//            or directory, or a name that would lead out of the directory, counts as
//            one that cannot be opened, so the watcher removes it.
MIXER_API int UtilReadFile(const std::string& fileName, sStreamInfo& info);

// Writes the file of info.name (a leading "/" in the name is not doubled), truncating
// an earlier one; creates the directory first if needed. 0 on success, -1 when the
// file cannot be opened (nothing is logged).
MIXER_API int UtilWriteFile(const sStreamInfo& info);

// Deletes the file of that name in the stream directory (a symbolic link itself, not
// its target); a failure, or a name that would lead out of the directory, is ignored.
MIXER_API void UtilRemoveFile(const std::string& fileName);

// Creates (or truncates) the empty ping file; its close is what the watcher answers.
MIXER_API void UtilPing();

}  // namespace mixer
