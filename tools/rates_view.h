#ifndef QUORVEL_RATES_VIEW_H
#define QUORVEL_RATES_VIEW_H

#include <qvapi_sampling.h>

#include "output.h"

namespace Quorvel {

/// Prints an application's rates for a person: a line for each range of log types with one rate.
void printReadableRates(const AppItem& slot, Output& output);

/// Prints an application's rates above 1, or `all` of them: for each a line with a JSON object,
/// whose name is written as RecordPrinter does it.
/// @param onlyAscii as RecordStyle::kAsciiJson
void printJsonRates(const AppItem& slot, bool all, bool onlyAscii, Output& output);

}  // namespace Quorvel

#endif  // QUORVEL_RATES_VIEW_H
