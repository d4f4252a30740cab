// The library's standard streams. They exist from load time, unattached, and
// are attached (never owned) to stdin, stdout and stderr by aio_initialize;
// output before that only sets the stream's failure bit.
#ifndef ZMXUTI_STREAMS_STANDARD_STREAMS_H
#define ZMXUTI_STREAMS_STANDARD_STREAMS_H

#include "core/export.h"
#include "streams/istream.h"
#include "streams/ostream.h"

ZMXUTI_API extern aio_istream aio_cin;
ZMXUTI_API extern aio_ostream aio_cout;
ZMXUTI_API extern aio_ostream aio_cerr;

#endif  // ZMXUTI_STREAMS_STANDARD_STREAMS_H
