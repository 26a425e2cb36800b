// A local stream that fails before its end while the program reads it: the
// MD5 sum of a file, or what the transport sends to the remote side.
#ifndef FERROW_COMMONS_STREAM_READ_ERROR_H_
#define FERROW_COMMONS_STREAM_READ_ERROR_H_

#include "errors/exc.h"

namespace tovel {

TOVEL_DECLARE_TAG(StreamRead)

}  // namespace tovel

TOVEL_EXC_TRAITS(&tovel::StreamRead, "StreamRead",
                 "Cannot read data from the stream");

#endif  // FERROW_COMMONS_STREAM_READ_ERROR_H_
