// Helpers shared by the UDP and TCP halves of the socket layer.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>

#include "ibp/isp_socket.h"

// Makes a zeroed control block with a fresh non-blocking-to-be socket of the
// protocol (SKT_PROTO_TCP or SKT_PROTO_UDP) and links it into the global list.
SKT_SOCKET_CB_S *SKT_CreateSocket(const SKT_SOCK_INFO_S *pstSockInfo, u32 ulProto);
// Applies the fixed options: non-blocking, SO_REUSEADDR, and for TCP
// TCP_NODELAY, no lingering and keep-alive; then the buffer sizes.
u32 SKT_SetSockProperty(SKT_SOCKET_CB_S *pstSocketCB);
// Unlinks the block, closes both descriptors, frees it and clears *ppstSocketCB.
void SKT_DestroySocket(SKT_SOCKET_CB_S **ppstSocketCB);
// Why a call refuses pstSocketCB, or null when it is a living control block:
// pcNullText for null, "pstSocketCB is invalid" for one never made or
// destroyed before. The block itself is not read. One destroyed while another
// thread still drives it is that caller's race, not caught here.
const char *SKT_Refusal(const SKT_SOCKET_CB_S *pstSocketCB, const char *pcNullText = "pstSocketCB is NULL");

// True for a block that the layer destroyed (and has not handed out again).
bool SKT_WasDestroyed(const SKT_SOCKET_CB_S *pstSocketCB);

// An IPv4 address in network order as dotted text, in the caller's storage
// (thread-safe, unlike inet_ntoa's static buffer).
struct SktIpText {
    explicit SktIpText(u32 ulIp)
    {
        struct in_addr stAddr;
        stAddr.s_addr = ulIp;
        if (inet_ntop(AF_INET, &stAddr, acText, sizeof(acText)) == nullptr)
            acText[0] = '\0';
    }
    const char *c_str() const { return acText; }
    char acText[INET_ADDRSTRLEN];
};

// sockaddr_in of an address and port in network order.
inline struct sockaddr_in SktSockAddr(u32 ulIp, u16 usPort)
{
    struct sockaddr_in stAddr = {};
    stAddr.sin_family = AF_INET;
    stAddr.sin_addr.s_addr = ulIp;
    stAddr.sin_port = usPort;
    return stAddr;
}

// Binds the block's socket to the local address of the description; the
// result and errno are bind's.
int SktBindLocal(const SKT_SOCKET_CB_S *pstSocketCB, const SKT_SOCK_INFO_S *pstSockInfo);
