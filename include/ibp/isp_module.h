/* Processes, modules and their message handlers.
 *
 * The world is fixed in two tables: two processes ("ISP", "DT") and six
 * modules. A module is registered in the process that owns its row; it then
 * has a thread, an ordinary queue, an ack queue and a table of 32 handlers.
 * Its handlers run one at a time on its thread, in the order the messages
 * arrived, and the runtime frees each message when its handler returns.
 *
 * MOD_PROC_MODULE_ID names the process module of whichever process looks at
 * it; every thread that is no module's own speaks as that module.
 *
 * Register and unregister modules at start and stop, not while messages are
 * flowing to them. */
#ifndef IBP_ISP_MODULE_H
#define IBP_ISP_MODULE_H

#include <pthread.h>
#include <semaphore.h>

#include "ibp/isp_circbuf.h"
#include "ibp/isp_rawmsg.h"
#include "ibp/isp_socket.h"
#include "ibp/isp_types.h"

IBP_EXTERN_C_BEGIN

/* ---- identifiers */
#define MOD_PROC_ID_ISP 0xbfffffffu
#define MOD_PROC_ID_DT 0xbffffffeu
#define MOD_PROC_MODULE_ID 0x9fffffffu
#define MOD_ID_ISP_IMG 0x90000001u
#define MOD_ID_ISP_CMD 0x90000002u
#define MOD_ID_DT_CLI 0x91000001u
#define MOD_ID_DT_CMD 0x91000002u

#define MOD_NAME_LEN 64u
#define MOD_SOCKET_ADDR_LEN 16u
#define MOD_PROC_CFG_NUM 2u
#define MOD_MODULE_CFG_NUM 6u
#define MOD_MAX_MODULE_NUM 8u   /* slots in the pool */
#define MOD_MAX_MSG_PROC_NUM 32u /* handler entries per module */

/* ---- configuration */
typedef struct {
    char szProcName[MOD_NAME_LEN];
    u32 ulProcID;
    char szSocketAddr[MOD_SOCKET_ADDR_LEN]; /* dotted IPv4 */
    u16 usSocketPort;                       /* host byte order */
} MOD_PROC_CFG_S;

typedef struct {
    char szModuleName[MOD_NAME_LEN];
    u32 ulModuleID;
    u32 ulProcID; /* 0: claimed by the first process that registers it */
} MOD_MODULE_CFG_S;

IBP_API extern MOD_PROC_CFG_S gastProcCfgInfo[MOD_PROC_CFG_NUM];
IBP_API extern MOD_MODULE_CFG_S gastModuleCfgInfo[MOD_MODULE_CFG_NUM];

/* ---- list control: a pool or a queue with its lock (a semaphore of initial
 * value 1). ulMaxNum and ulCurNum are informative only; a pool is bounded by
 * its free list, a message queue not at all. */
typedef struct {
    u32 ulMaxNum;
    u32 ulCurNum;
    MOD_LIST_S stFreeList;
    MOD_LIST_S stUsedList;
    sem_t stLock;
} MOD_LIST_CTRL_S;

typedef MOD_LIST_CTRL_S MOD_MODULE_CTRL_S;
typedef MOD_LIST_CTRL_S MOD_MSG_PROC_CTRL_S;
typedef MOD_LIST_CTRL_S MOD_MSG_CTRL_S;

/* ---- handlers */
/* Runs on the module's thread; the result is not read. hMsg belongs to the
 * runtime: clone it with MSG_Clone to keep it. */
typedef u32 (*MOD_MSG_PROC_PFN)(u32 ulMsgID, MSG_HANDLE hMsg, void *pParam);

typedef struct {
    u32 ulMsgID; /* 0: serves every message */
    MOD_MSG_PROC_PFN pfnMsgProc;
    void *pParam;
    MOD_LIST_S stNode;
} MOD_MSG_PROC_S;

/* ---- module slot */
typedef struct {
    char szModuleName[MOD_NAME_LEN];
    u32 ulModuleID;
    u32 ulProcID;
    u32 bUsed;
    u32 bRun;
    pthread_t hThread;
    sem_t stWakeSem;
    MOD_MSG_PROC_S astMsgProc[MOD_MAX_MSG_PROC_NUM];
    MOD_MSG_PROC_CTRL_S stMsgProcCtrl;
    MOD_MSG_CTRL_S stMsgCtrl;
    MOD_MSG_CTRL_S stAckMsgCtrl; /* acks of synchronous requests only */
    u32 ulAssMsgID;
    u32 ulLastSendMsg;
    u32 ulLastRecvMsg;
    u32 ulSendMsgCount;
    u32 ulRecvMsgCount;
    MOD_LIST_S stNode;
} MOD_MODULE_S;

/* ---- the process */
typedef struct {
    char szProcName[MOD_NAME_LEN];
    u32 ulProcID;
    SKT_HANDLE hRecvSocket;
    SKT_HANDLE hSendSocket; /* the same endpoint as hRecvSocket */
    CBUF_HANDLE hCircBuf;
    s32 lEpollFd;
    MOD_MODULE_S astModule[MOD_MAX_MODULE_NUM];
    MOD_MODULE_CTRL_S stModuleCtrl;
    MOD_MSG_CTRL_S stSendMsgCtrl;
    u32 ulCmdModuleID;
    u32 ulProcModuleID;
} MOD_PROC_S;

/* Modes of MOD_GetModuleMsg. */
typedef enum {
    MOD_GET_BY_ORDER = 0, /* the oldest message */
    MOD_GET_BY_ASSID = 1  /* the oldest message with that ulAssMsgID */
} MOD_GET_TYPE_E;

/* ---- the current process and the tables; lookups log and return null when
 * nothing matches, and the rows are the tables' own. */
IBP_API MOD_PROC_S *MOD_GetCurWorkProc(void);
IBP_API const char *MOD_GetCurWrokProcName(void);
IBP_API u32 MOD_GetCurWorkProcID(void);
IBP_API MOD_PROC_CFG_S *MOD_GetProcCfgByName(const char *pcProcName);
IBP_API MOD_PROC_CFG_S *MOD_GetProcCfgByID(u32 ulProcID);
IBP_API MOD_MODULE_CFG_S *MOD_GetModuleCfgByName(const char *pcModuleName);
/* MOD_PROC_MODULE_ID gives the row of the current process. */
IBP_API MOD_MODULE_CFG_S *MOD_GetModuleCfgByID(u32 ulModuleID);

/* ---- modules */
/* The module of the calling thread; any other thread gets the process
 * module, or null when it is not registered. */
IBP_API MOD_MODULE_S *MOD_GetCurWorkModule(void);
/* Never null: the module's name, else the process's, else "invalid". */
IBP_API const char *MOD_GetCurWrokModuleName(void);
/* The newest registration with that identifier; logs nothing. */
IBP_API MOD_MODULE_S *MOD_GetModuleByID(u32 ulModuleID);
IBP_API u32 MOD_WakeupModule(u32 ulModuleID);
IBP_API u32 MOD_RegModule(const char *pcModuleName, u32 *pulModuleID);
/* Stops the module's thread and gives its slot back; returns once the thread
 * has left (at most about five seconds; a thread still in a handler then
 * gives its slot back itself when it ends). Called from one of the module's
 * own handlers it returns at once and the thread ends after the handler. */
IBP_API u32 MOD_UnregModule(u32 ulModuleID);

/* ---- queues */
IBP_API u32 MOD_AddModuleMsg(MOD_MSG_CTRL_S *pstMsgCtrl, MOD_BUF_S *pstModBuf);
IBP_API MOD_BUF_S *MOD_GetModuleMsg(MOD_MSG_CTRL_S *pstMsgCtrl, MOD_GET_TYPE_E enGetType, u32 ulAssMsgID);
/* Hands every queued message to its handler, then frees it. */
IBP_API u32 MOD_RecvMsgProc(MOD_MODULE_S *pstModule);
/* Routes a message whose header is filled in; on success it is no longer the
 * caller's. */
IBP_API u32 MOD_SendMsgProc(MOD_MODULE_S *pstSrcModule, MOD_BUF_S *pstModBuf);

/* ---- the process and its transport */
/* Flags of MOD_ParseSocketMsg: what one parse step did. */
typedef enum {
    MOD_PARSE_DONE = 1,   /* one message delivered; there may be more */
    MOD_PARSE_FAIL = 2,   /* the buffer's fill could not be read, or the message not queued */
    MOD_PARSE_MORE = 3,   /* no complete message in the buffer yet */
    MOD_PARSE_DROP = 4,   /* a message for an unregistered module was dropped */
    MOD_PARSE_BADBUF = 5  /* the buffer got for the message was unusable */
} MOD_PARSE_FLAG_E;

struct sockaddr_in;

/* Opens the process's UDP endpoint, the receive buffer and the pool, and
 * starts the _CMD module and the process thread. */
IBP_API u32 MOD_SysInit(const char *pcProcName, u32 ulProcID);
/* Stops the process thread and the _CMD module and gives back the socket,
 * the buffer and the epoll instance; unregister your own modules first. */
IBP_API u32 MOD_SysDestroy(void);
IBP_API u32 MOD_RecvSocketData(struct sockaddr_in *pstAddr);
IBP_API u32 MOD_ParseSocketMsg(const struct sockaddr_in *pstAddr, u32 *pulFlag);
IBP_API void MOD_DestroyProcEpoll(MOD_PROC_S *pstProc);

/* ---- inspection: display functions (capacity in, text appended, length
 * out) of the base debug commands "isp bp module info", "isp bp module cfg"
 * and "isp bp proc cfg"; 0, or 1 for a null argument. */
IBP_API u32 MOD_PrintModule(u32 *pulOutBufLen, char *pcOutBuf);
IBP_API u32 MOD_PrintModuleCfg(u32 *pulOutBufLen, char *pcOutBuf);
IBP_API u32 MOD_PrintProcCfg(u32 *pulOutBufLen, char *pcOutBuf);

/* ---- handler tables; the newest matching entry wins */
IBP_API u32 MOD_RegMsgProc(u32 ulModuleID, u32 ulMsgID, MOD_MSG_PROC_PFN pfnMsgProc, void *pParam);
IBP_API u32 MOD_UnregMsgProc(u32 ulModuleID, u32 ulMsgID);
IBP_API u32 MOD_AddMsgProc(MOD_MSG_PROC_CTRL_S *pstMsgProcCtrl, u32 ulMsgID, MOD_MSG_PROC_PFN pfnMsgProc,
                           void *pParam);
IBP_API u32 MOD_DelMsgProc(MOD_MSG_PROC_CTRL_S *pstMsgProcCtrl, u32 ulMsgID);
IBP_API MOD_MSG_PROC_S *MOD_GetMsgProc(MOD_MSG_PROC_CTRL_S *pstCtrl, u32 ulMsgID);

IBP_EXTERN_C_END

#endif /* IBP_ISP_MODULE_H */
