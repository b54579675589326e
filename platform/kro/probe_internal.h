// Journal helpers shared by the stand-in's own sources.
#ifndef KRO_PROBE_INTERNAL_H_
#define KRO_PROBE_INTERNAL_H_

#include <cstdarg>

bool kro_probe_recording();
void kro_probe_journal_vadd(const char *fmt, va_list ap);

#endif  // KRO_PROBE_INTERNAL_H_
