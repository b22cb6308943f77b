#include "main/control_packets.h"

int my_custom_packet_handler(comm_socket_v4_packet*, comm_socket_v4_packet*, const void*, t4mi_connection*)
{
    return 0;
}
