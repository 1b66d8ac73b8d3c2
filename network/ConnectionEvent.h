#pragma once

namespace zel::ConnectionEvent {

/// What a client tells its owner about the connection.
enum ConnectionEvent
{
    END_OF_FILE_RECEIVED = 0, ///< the transfer has ended; all that will ever come is in the buffer
    BROKEN_STREAM = 1         ///< the transfer ended before the stream did and could not be resumed
};

} // namespace zel::ConnectionEvent
