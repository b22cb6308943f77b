// The control socket's listening server.
#pragma once

struct comm_socket_v4_server;

// Re-creates the listening socket (after daemon()). 0 on success; a null
// server has nothing to reopen.
int comm_socket_v4_reopen_server(comm_socket_v4_server* server);
