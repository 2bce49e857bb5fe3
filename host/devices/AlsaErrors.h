#pragma once

namespace mixer {
namespace host {

// Sends alsa-lib's own error messages (which it would print on stderr) to the mixer
// log as warnings. Idempotent; any thread.
void AlsaRouteErrorsToLog();

}  // namespace host
}  // namespace mixer
