#ifndef QVAPI_PROBES_H
#define QVAPI_PROBES_H

// Static tracepoints (USDT) of provider qvapi: a nop each while nobody looks. Without Debian's
// systemtap-sdt-dev at build time there are none. All sites of one probe pass the same types.
//
// - sent: application, log type, bytes of the record, transport (as given to SocketClient::init)
// - sampled_out: application, log type, rate
// - failed: result code, application (empty: none yet), log type, bytes of the record
// - fallback: bytes of the fallback record, 1 (appended whole) or 0
// - connect: transport, 0 (connected) or a negative value; the back-off makes no attempt
// - batch_closed: application, number of texts

#if __has_include(<sys/sdt.h>)
#define SDT_USE_VARIADIC
#include <sys/sdt.h>
#define QVAPI_PROBE(...) STAP_PROBEV(qvapi, __VA_ARGS__)
#else
/// Never called: the arguments count as used, and are not evaluated.
template <typename... Arguments>
int probeArguments(const Arguments&... arguments);
#define QVAPI_PROBE(name, ...) static_cast<void>(sizeof(probeArguments(__VA_ARGS__)))
#endif

#endif  // QVAPI_PROBES_H
