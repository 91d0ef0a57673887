#ifndef QVAPI_ERRNO_H
#define QVAPI_ERRNO_H

/// Result codes of the library. 0 is success; every failure is one of the positive codes below and
/// leaves a message that get_errmsg() returns. Starting a statistics thread can also fail with the
/// thread library's own error number (pthread_create(3), e.g. EAGAIN), which may coincide with a
/// code below: the message tells them apart.
namespace Quorvel {

/// Sent, or dropped by sampling.
const int QV_ERR_OK = 0;
/// Not initialised; init refused; module record on an application-mode logger; statistics off.
const int QV_ERR_INIT = 1;
/// Record longer than 30720 bytes (pack_send_buff only), or empty data.
const int QV_ERR_LENGTH = 2;
/// SocketClient: null buffer.
const int QV_ERR_NULL_BUFFER = 4;
/// SocketClient: length 0 or negative. CLogger: the framed record is longer than INT_MAX bytes.
const int QV_ERR_BUFFER_LENGTH = 6;
/// Stream transport: no connection; the record was turned over to the fallback file.
const int QV_ERR_CONNECT = 7;
/// Stream transport: the write ended early; the record was turned over to the fallback file.
const int QV_ERR_WRITE = 8;
/// Null record pointer.
const int QV_ERR_NULL_DATA = 11;
/// Protocol type neither 0 (text) nor 1 (binary).
const int QV_ERR_PROTOCOL_TYPE = 12;
/// Log type out of range, or base log on a module-mode logger.
const int QV_ERR_LOG_TYPE = 13;
/// Address text longer than 32 characters.
const int QV_ERR_ADDRESS_LENGTH = 15;
/// Bad module-invocation arguments.
const int QV_ERR_ARGUMENT = 16;
/// The datagram could not be sent whole; the record is dropped.
const int QV_ERR_DATAGRAM = 17;
/// No agent and the fallback file is over 1,000,000,000 bytes; the record is dropped.
const int QV_ERR_FALLBACK_FULL = 20;

}  // namespace Quorvel

#endif  // QVAPI_ERRNO_H
