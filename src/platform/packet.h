// Packets in memory are part of the public client API: include/t4mi/packet.h.
// The wire encoding is in packet_codec.h.
#pragma once

#include <t4mi/packet.h>
