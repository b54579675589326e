// Journal helpers shared by the stand-in's own sources.
#ifndef KRO_PROBE_INTERNAL_H_
#define KRO_PROBE_INTERNAL_H_

#include <cstdarg>

bool kro_probe_recording();
// printf-style: lets the compiler check callers and accept the forwarded format.
__attribute__((format(printf, 1, 0))) void kro_probe_journal_vadd(const char *fmt, va_list ap);

#endif  // KRO_PROBE_INTERNAL_H_
