/** @file
 * IPv4 socket control blocks: UDP endpoints (the runtime's transport) and
 * step-wise TCP endpoints for the application. Every socket made here is
 * non-blocking and stands in one global list for SKT_PrintSock.
 *
 * No lock anywhere: a control block belongs to the thread that drives it, and
 * sockets are created and destroyed at start-up and shut-down (the global list
 * is changed and displayed without exclusion). Addresses and ports in the
 * records are in network byte order. */
#ifndef IBP_ISP_SOCKET_H
#define IBP_ISP_SOCKET_H

#include "ibp/isp_rawmsg.h"
#include "ibp/isp_types.h"

IBP_EXTERN_C_BEGIN

/** @name Roles
 * SKT_SOCK_INFO_S.enRole: a server binds its local address; anything but 0
 * is a client for binding.
 * @{ */
#define SKT_ROLE_SERVER 0u /**< binds ulLocalIp:usLocalPort */
#define SKT_ROLE_CLIENT 1u /**< a TCP client connects to ulRemoteIp:usRemotePort */
/** @} */

/** @name Protocols
 * SKT_SOCKET_CB_S.ulProto.
 * @{ */
#define SKT_PROTO_UDP 0u /**< a UDP endpoint */
#define SKT_PROTO_TCP 1u /**< a TCP endpoint */
/** @} */

/** State of a socket, in SKT_SOCKET_CB_S.enSockStatus. */
typedef enum {
    SKT_STATUS_IDLE = 0,       /**< a UDP endpoint */
    SKT_STATUS_CREATED = 1,    /**< TCP client, not connected */
    SKT_STATUS_CONNECTING = 2, /**< TCP client, connection under way */
    SKT_STATUS_LISTENING = 3,  /**< TCP server, listening */
    SKT_STATUS_CONNECTED = 4,  /**< TCP connection up */
    SKT_STATUS_CLOSED = 5      /**< TCP connection found dead */
} SKT_STATUS_E;

/** Description of an endpoint, read during SKT_UdpInit/SKT_TcpInit only. */
typedef struct {
    u32 ulModuleID;   /**< owner, shown by the display */
    u32 enRole;       /**< SKT_ROLE_SERVER or SKT_ROLE_CLIENT */
    u32 ulLocalIp;    /**< for bind */
    u16 usLocalPort;  /**< for bind */
    u32 ulRemoteIp;   /**< the peer; a client connects here */
    u16 usRemotePort; /**< port of the peer */
    u32 ulSndBufSize; /**< TCP only; 0 keeps the system's size */
    u32 ulRcvBufSize; /**< TCP only; 0 keeps the system's size */
    u32 ulBacklog;    /**< TCP server: listen backlog */
    s32 lTimeOut;     /**< ms, for the waiting steps of TCP */
} SKT_SOCK_INFO_S;

/** The control block, handed out as the socket handle. */
typedef struct SKT_SOCKET_CB_S {
    u32 ulModuleID;    /**< owner, shown by the display */
    u32 ulProto;       /**< SKT_PROTO_TCP or SKT_PROTO_UDP */
    u32 enRole;        /**< SKT_ROLE_SERVER or SKT_ROLE_CLIENT */
    s32 lSocket;       /**< descriptor in use, or -1 */
    s32 lListenSocket; /**< a TCP server after accept: the listening descriptor */
    u32 ulRemoteIp;    /**< the peer's address */
    u16 usRemotePort;  /**< the peer's port */
    u16 usEvents;      /**< poll events the next SKT_TcpPollSock waits for */
    u16 usREvents;     /**< poll result of the last SKT_TcpPollSock */
    s32 lTimeOut;      /**< ms, for the waiting steps of TCP */
    u32 ulSndBufSize;  /**< send buffer size asked for; 0: the system's */
    u32 ulRcvBufSize;  /**< receive buffer size asked for; 0: the system's */
    u32 enSockStatus;  /**< SKT_STATUS_E */
    MOD_LIST_S stNode; /**< link of the global list */
} SKT_SOCKET_CB_S;

/** A socket: its control block. */
typedef SKT_SOCKET_CB_S *SKT_HANDLE;

/** A non-blocking UDP socket bound to the local address of pstSockInfo; or null. */
IBP_API SKT_HANDLE SKT_UdpInit(const SKT_SOCK_INFO_S *pstSockInfo);
/** Closes the socket; the caller's handle variable is left as it was and must
 * not be used again. */
IBP_API void SKT_UdpDestroy(SKT_HANDLE *phSocket);
/** The descriptor of a socket, or -1. */
IBP_API s32 SKT_GetSocketFD(SKT_HANDLE hSocket);
/** Stores the 6-byte hardware address of the network interface pcNetName.
 * Returns 0 or 1. */
IBP_API u32 SKT_GetMacAddr(const char *pcNetName, u8 *pucMacAddr);
/** Display function: one line per socket, newest first. */
IBP_API u32 SKT_PrintSock(u32 *pulOutBufLen, char *pcOutBuf);

/** A non-blocking TCP socket: a server bound and listening, or a client not
 * yet connected (SKT_TcpConnect); or null. */
IBP_API SKT_HANDLE SKT_TcpInit(const SKT_SOCK_INFO_S *pstSockInfo);
/** As SKT_UdpDestroy, for a TCP socket. */
IBP_API void SKT_TcpDestroy(SKT_HANDLE *phSocket);
/** Waits for usEvents on any of the sockets: 0 when one is ready, else 1. */
IBP_API u32 SKT_TcpPollSock(u32 ulSockNum, SKT_SOCKET_CB_S **apstSocketCB, s32 lTimeOut);
/** One step towards a connection (connect, or accept on a server); call again
 * until it gives 0. */
IBP_API u32 SKT_TcpConnect(SKT_SOCKET_CB_S *pstSocketCB);
/** Sends the whole buffer unless a stall outlasts *pulRetryNum sleeps of
 * *pulSleepTime ms (0 means 20); returns the bytes sent, -1 when the socket
 * can't send. */
IBP_API s32 SKT_TcpSend(SKT_SOCKET_CB_S *pstSocketCB, u32 ulDataLen, const u8 *pucBuf,
                        const u32 *pulRetryNum, const u32 *pulSleepTime);
/** One receive; *pulDataLen is the room on entry, the bytes received on
 * success. A socket found without data is marked SKT_STATUS_CLOSED. */
IBP_API u32 SKT_TcpRecv(SKT_SOCKET_CB_S *pstSocketCB, u32 bWait, u32 *pulDataLen, u8 *pucBuf);

IBP_EXTERN_C_END

#endif /* IBP_ISP_SOCKET_H */
