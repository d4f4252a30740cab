// The three standard stream objects. Constant-initialised, so they are usable
// (unattached) by every static constructor of the process.
#include "streams/standard_streams.h"

aio_istream aio_cin;
aio_ostream aio_cout;
aio_ostream aio_cerr;
