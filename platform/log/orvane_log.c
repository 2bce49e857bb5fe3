#include "orvane_log.h"

uint32_t g_orvane_log_mask = ORVANE_LOG_ERROR | ORVANE_LOG_WARNING | ORVANE_LOG_INFO;
