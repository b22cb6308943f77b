#include "platform/comm_server.h"

int comm_socket_v4_reopen_server(comm_socket_v4_server* server) { return server == nullptr ? 0 : 1; }
