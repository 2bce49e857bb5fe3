#include "device_metrics.h"

#include <syslog.h>

int record_device_metric(const char* program, const char* source, const char* name,
                         int count, int reserved1, int reserved2, int reserved3) {
    (void)reserved1;
    (void)reserved2;
    (void)reserved3;
    syslog(LOG_NOTICE, "metric program=%s source=%s name=%s count=%d",
           program ? program : "", source ? source : "", name ? name : "", count);
    return 0;
}
