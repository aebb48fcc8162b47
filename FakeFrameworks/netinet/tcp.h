#pragma once

#include_next <netinet/tcp.h>

enum { TCP_KEEPALIVE = 0x1010, TCP_RXT_CONNDROPTIME = 0x1080 };
