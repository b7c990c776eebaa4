/** @file
 * Processes, modules and their message handlers.
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

/** @name Identifiers
 * Of the two processes and of the modules of the tables.
 * @{ */
#define MOD_PROC_ID_ISP 0xbfffffffu    /**< the service process, "ISP" */
#define MOD_PROC_ID_DT 0xbffffffeu     /**< the debug tool process, "DT" */
#define MOD_PROC_MODULE_ID 0x9fffffffu /**< the process module of whichever process uses it */
#define MOD_ID_ISP_IMG 0x90000001u     /**< "ISP_IMG", the image library's module in the service */
#define MOD_ID_ISP_CMD 0x90000002u     /**< "ISP_CMD", the command service */
#define MOD_ID_DT_CLI 0x91000001u      /**< "DT_CLI", the application's module in the debug tool */
#define MOD_ID_DT_CMD 0x91000002u      /**< "DT_CMD", the debug tool's _CMD module */
/** @} */

#define MOD_NAME_LEN 64u         /**< process and module names, NUL included */
#define MOD_SOCKET_ADDR_LEN 16u  /**< dotted IPv4 address, NUL included */
#define MOD_PROC_CFG_NUM 2u      /**< rows of gastProcCfgInfo */
#define MOD_MODULE_CFG_NUM 6u    /**< rows of gastModuleCfgInfo */
#define MOD_MAX_MODULE_NUM 8u    /**< module slots in the pool of a process */
#define MOD_MAX_MSG_PROC_NUM 32u /**< handler entries per module */

/** A row of the process table. */
typedef struct {
    char szProcName[MOD_NAME_LEN];          /**< "ISP" or "DT" */
    u32 ulProcID;                           /**< MOD_PROC_ID_ISP or MOD_PROC_ID_DT */
    char szSocketAddr[MOD_SOCKET_ADDR_LEN]; /**< dotted IPv4 of the process's UDP endpoint */
    u16 usSocketPort;                       /**< its port, host byte order */
} MOD_PROC_CFG_S;

/** A row of the module table. */
typedef struct {
    char szModuleName[MOD_NAME_LEN]; /**< "ISP_IMG", "ISP_CMD", ... */
    u32 ulModuleID;                  /**< MOD_ID_ISP_IMG, ... */
    u32 ulProcID;                    /**< owning process; 0: claimed by the first process that registers it */
} MOD_MODULE_CFG_S;

/** The process table: "ISP" on 127.0.0.1:7001, "DT" on 127.0.0.1:7002. */
IBP_API extern MOD_PROC_CFG_S gastProcCfgInfo[MOD_PROC_CFG_NUM];
/** The module table: the six modules that can be registered. */
IBP_API extern MOD_MODULE_CFG_S gastModuleCfgInfo[MOD_MODULE_CFG_NUM];

/** A pool or a queue with its lock (a semaphore of initial value 1).
 * ulMaxNum and ulCurNum are informative only; a pool is bounded by its free
 * list, a message queue not at all. */
typedef struct {
    u32 ulMaxNum;          /**< capacity, for the display */
    u32 ulCurNum;          /**< entries in use, for the display */
    MOD_LIST_S stFreeList; /**< free entries of a pool */
    MOD_LIST_S stUsedList; /**< entries in use, oldest first */
    sem_t stLock;          /**< held only for list work */
} MOD_LIST_CTRL_S;

typedef MOD_LIST_CTRL_S MOD_MODULE_CTRL_S;   /**< the pool of module slots */
typedef MOD_LIST_CTRL_S MOD_MSG_PROC_CTRL_S; /**< a module's handler table */
typedef MOD_LIST_CTRL_S MOD_MSG_CTRL_S;      /**< a queue of messages */

/** A message handler. Runs on the module's thread; the result is not read.
 * hMsg belongs to the runtime: clone it with MSG_Clone to keep it. */
typedef u32 (*MOD_MSG_PROC_PFN)(u32 ulMsgID, MSG_HANDLE hMsg, void *pParam);

/** An entry of a handler table. */
typedef struct {
    u32 ulMsgID;                 /**< message served; 0: every message */
    MOD_MSG_PROC_PFN pfnMsgProc; /**< the handler */
    void *pParam;                /**< handed to the handler */
    MOD_LIST_S stNode;           /**< link in the table */
} MOD_MSG_PROC_S;

/** A module slot of the pool. */
typedef struct {
    char szModuleName[MOD_NAME_LEN];                 /**< name of the module's row */
    u32 ulModuleID;                                  /**< identifier of the module's row */
    u32 ulProcID;                                    /**< process that registered it */
    u32 bUsed;                                       /**< 1 while the slot is taken */
    u32 bRun;                                        /**< 1 while the thread is to run on */
    pthread_t hThread;                               /**< the module's thread */
    sem_t stWakeSem;                                 /**< posted when a message is queued */
    MOD_MSG_PROC_S astMsgProc[MOD_MAX_MSG_PROC_NUM]; /**< handler entries */
    MOD_MSG_PROC_CTRL_S stMsgProcCtrl;               /**< the handler table over astMsgProc */
    MOD_MSG_CTRL_S stMsgCtrl;                        /**< ordinary queue */
    MOD_MSG_CTRL_S stAckMsgCtrl;                     /**< acks of synchronous requests only */
    u32 ulAssMsgID;                                  /**< counter of association identifiers */
    u32 ulLastSendMsg;                               /**< identifier of the last message sent */
    u32 ulLastRecvMsg;                               /**< identifier of the last message handled */
    u32 ulSendMsgCount;                              /**< messages sent */
    u32 ulRecvMsgCount;                              /**< messages handled */
    MOD_LIST_S stNode;                               /**< link in the pool */
} MOD_MODULE_S;

/** The process: its endpoint, receive buffer, module pool and outbound queue. */
typedef struct {
    char szProcName[MOD_NAME_LEN];               /**< "ISP" or "DT" */
    u32 ulProcID;                                /**< MOD_PROC_ID_ISP or MOD_PROC_ID_DT */
    SKT_HANDLE hRecvSocket;                      /**< the UDP endpoint */
    SKT_HANDLE hSendSocket;                      /**< the same endpoint as hRecvSocket */
    CBUF_HANDLE hCircBuf;                        /**< receive buffer of 8192 bytes */
    s32 lEpollFd;                                /**< epoll instance of the process thread */
    MOD_MODULE_S astModule[MOD_MAX_MODULE_NUM];  /**< module slots */
    MOD_MODULE_CTRL_S stModuleCtrl;              /**< the pool over astModule */
    MOD_MSG_CTRL_S stSendMsgCtrl;                /**< messages for the other process */
    u32 ulCmdModuleID;                           /**< MOD_ID_ISP_CMD or MOD_ID_DT_CMD */
    u32 ulProcModuleID;                          /**< MOD_PROC_MODULE_ID */
} MOD_PROC_S;

/** Modes of MOD_GetModuleMsg. */
typedef enum {
    MOD_GET_BY_ORDER = 0, /**< the oldest message */
    MOD_GET_BY_ASSID = 1  /**< the oldest message with that ulAssMsgID */
} MOD_GET_TYPE_E;

/** @name The current process and the tables
 * Lookups log and return null when nothing matches; the rows are the tables' own.
 * @{ */
/** The process record of this process. */
IBP_API MOD_PROC_S *MOD_GetCurWorkProc(void);
/** Name of this process, "ISP" or "DT". */
IBP_API const char *MOD_GetCurWrokProcName(void);
/** Identifier of this process. */
IBP_API u32 MOD_GetCurWorkProcID(void);
/** The row of the process table with that name. */
IBP_API MOD_PROC_CFG_S *MOD_GetProcCfgByName(const char *pcProcName);
/** The row of the process table with that identifier. */
IBP_API MOD_PROC_CFG_S *MOD_GetProcCfgByID(u32 ulProcID);
/** The row of the module table with that name. */
IBP_API MOD_MODULE_CFG_S *MOD_GetModuleCfgByName(const char *pcModuleName);
/** The row of the module table with that identifier; MOD_PROC_MODULE_ID
 * gives the row of the current process. */
IBP_API MOD_MODULE_CFG_S *MOD_GetModuleCfgByID(u32 ulModuleID);
/** @} */

/** The module of the calling thread; any other thread gets the process
 * module, or null when it is not registered. */
IBP_API MOD_MODULE_S *MOD_GetCurWorkModule(void);
/** Never null: the module's name, else the process's, else "invalid". */
IBP_API const char *MOD_GetCurWrokModuleName(void);
/** The newest registration with that identifier; logs nothing. */
IBP_API MOD_MODULE_S *MOD_GetModuleByID(u32 ulModuleID);
/** Wakes the thread of a module, which then drains its queue. Returns 0 or 1. */
IBP_API u32 MOD_WakeupModule(u32 ulModuleID);
/** Registers the module of that name from the module table in this process:
 * a slot, queues, a handler table and a thread. Stores its identifier.
 * Returns 0 or 1. */
IBP_API u32 MOD_RegModule(const char *pcModuleName, u32 *pulModuleID);
/** Stops the module's thread and gives its slot back; returns once the thread
 * has left (at most about five seconds; a thread still in a handler then
 * gives its slot back itself when it ends). Called from one of the module's
 * own handlers it returns at once and the thread ends after the handler. */
IBP_API u32 MOD_UnregModule(u32 ulModuleID);

/** Appends a message to a queue, under its lock. Returns 0 or 1. */
IBP_API u32 MOD_AddModuleMsg(MOD_MSG_CTRL_S *pstMsgCtrl, MOD_BUF_S *pstModBuf);
/** Takes a message out of a queue: the oldest, or the oldest with ulAssMsgID
 * (MOD_GET_TYPE_E); null when there is none. */
IBP_API MOD_BUF_S *MOD_GetModuleMsg(MOD_MSG_CTRL_S *pstMsgCtrl, MOD_GET_TYPE_E enGetType, u32 ulAssMsgID);
/** Hands every queued message to its handler, then frees it. */
IBP_API u32 MOD_RecvMsgProc(MOD_MODULE_S *pstModule);
/** Routes a message whose header is filled in; on success it is no longer the
 * caller's. */
IBP_API u32 MOD_SendMsgProc(MOD_MODULE_S *pstSrcModule, MOD_BUF_S *pstModBuf);

/** Flags of MOD_ParseSocketMsg: what one parse step did. */
typedef enum {
    MOD_PARSE_DONE = 1,   /**< one message delivered; there may be more */
    MOD_PARSE_FAIL = 2,   /**< the buffer's fill could not be read, or the message not queued */
    MOD_PARSE_MORE = 3,   /**< no complete message in the buffer yet */
    MOD_PARSE_DROP = 4,   /**< a message for an unregistered module was dropped */
    MOD_PARSE_BADBUF = 5  /**< the buffer got for the message was unusable */
} MOD_PARSE_FLAG_E;

struct sockaddr_in;

/** Opens the process's UDP endpoint, the receive buffer and the pool, and
 * starts the _CMD module and the process thread. IBP_Init calls it. Returns
 * 0 or 1. */
IBP_API u32 MOD_SysInit(const char *pcProcName, u32 ulProcID);
/** Stops the process thread and the _CMD module and gives back the socket,
 * the buffer and the epoll instance; unregister your own modules first. */
IBP_API u32 MOD_SysDestroy(void);
/** Process thread: reads the datagram that waits, if any, into the receive
 * buffer and stores its sender in pstAddr. Returns 0, or 1 on a socket error. */
IBP_API u32 MOD_RecvSocketData(struct sockaddr_in *pstAddr);
/** Process thread: takes one message out of the receive buffer and queues it
 * at its module; *pulFlag says what happened (MOD_PARSE_FLAG_E). */
IBP_API u32 MOD_ParseSocketMsg(const struct sockaddr_in *pstAddr, u32 *pulFlag);
/** Closes the epoll instance of a process record. */
IBP_API void MOD_DestroyProcEpoll(MOD_PROC_S *pstProc);

/** @name Inspection
 * Display functions (capacity in, text appended, length out) of the base
 * debug commands; 0, or 1 for a null argument.
 * @{ */
/** "isp bp module info": the modules registered in this process. */
IBP_API u32 MOD_PrintModule(u32 *pulOutBufLen, char *pcOutBuf);
/** "isp bp module cfg": the module table. */
IBP_API u32 MOD_PrintModuleCfg(u32 *pulOutBufLen, char *pcOutBuf);
/** "isp bp proc cfg": the process table. */
IBP_API u32 MOD_PrintProcCfg(u32 *pulOutBufLen, char *pcOutBuf);
/** @} */

/** @name Handler tables
 * The newest matching entry wins; an entry for message 0 serves every message.
 * @{ */
/** Adds a handler for ulMsgID to a registered module. Returns 0 or 1. */
IBP_API u32 MOD_RegMsgProc(u32 ulModuleID, u32 ulMsgID, MOD_MSG_PROC_PFN pfnMsgProc, void *pParam);
/** Removes the handler of ulMsgID from a module. Returns 0 or 1. */
IBP_API u32 MOD_UnregMsgProc(u32 ulModuleID, u32 ulMsgID);
/** Adds an entry to a handler table, under its lock. Returns 0 or 1. */
IBP_API u32 MOD_AddMsgProc(MOD_MSG_PROC_CTRL_S *pstMsgProcCtrl, u32 ulMsgID, MOD_MSG_PROC_PFN pfnMsgProc,
                           void *pParam);
/** Removes the entry of ulMsgID from a handler table. Returns 0 or 1. */
IBP_API u32 MOD_DelMsgProc(MOD_MSG_PROC_CTRL_S *pstMsgProcCtrl, u32 ulMsgID);
/** The newest entry that serves ulMsgID, for that message or for message 0; or null. */
IBP_API MOD_MSG_PROC_S *MOD_GetMsgProc(MOD_MSG_PROC_CTRL_S *pstCtrl, u32 ulMsgID);
/** @} */

IBP_EXTERN_C_END

#endif /* IBP_ISP_MODULE_H */
