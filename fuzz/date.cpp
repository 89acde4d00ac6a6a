// A date record and a text. Both ways of telling a date agree, and lead back.
#include "support.h"
#include "vos_util.h"

void fuzz(FuzzedDataProvider &&input)
{
    VosDate date{};
    input.ConsumeData(&date, sizeof date);
    char text[40];
    snprintf(text, sizeof text, "%04u-%02u-%02u %02u:%02u:%02u", date.year, date.month, date.day,
             date.hour, date.minute, date.second);
    assert(vos_util_parse_utc_date(text) == vos_util_date_to_time(&date));
    const uint32_t seconds = vos_util_parse_utc_date(input.ConsumeRemainingBytesAsString().c_str());
    vos_util_format_date(seconds, text);
    assert(vos_util_parse_utc_date(text) == seconds);
}
