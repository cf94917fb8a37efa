// Pieces shared by the sources of the client connection.
#ifndef TN_SRC_HTTP_CLIENT_H
#define TN_SRC_HTTP_CLIENT_H

#include <tarnel_util/tn_http_client.h>

#include "http/connection.h"

namespace tn::http {

// Both buffers on the client's socket with time-outs 0, state connected.
void attach_buffers(tn_http_client *client);

// The client's input buffer as the generic record.
inline tn_input_buffer *input_of(tn_http_client *client) { return &client->input.buffer; }

} // namespace tn::http

#endif
