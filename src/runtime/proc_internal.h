// The process as a whole: the process thread, its wake-up, the receive path
// and whether the runtime runs. See module_internal.h for the files and locks.
#pragma once

#include <netinet/in.h>

#include "ibp/isp_module.h"

// ---------------------------------------------------------------- set-up (isp_module_proc.cpp)

// True between a successful MOD_SysInit and MOD_SysDestroy.
bool MOD_IsSysRunning();

// ---------------------------------------------------------------- the thread (isp_module_loop.cpp)

// Entry of the process module's thread: socket, parser, outbound queue.
void *MOD_ProcThreadProc(void *pvModule);

// ---------------------------------------------------------------- receiving (isp_module_recv.cpp)

// Forgets who sent the bytes in the receive buffer: a new start.
void MOD_RecvReset();

// Reads the socket until it is empty, delivering every message it brings.
void MOD_RecvSocketMsgProc();

// ---------------------------------------------------------------- wake-up (isp_module_wake.cpp)

// The wake descriptor, an eventfd in the epoll set lEpollFd; 0 or 1.
u32 MOD_InitWakeFd(s32 lEpollFd);
void MOD_CloseWakeFd();

// The descriptor while it is open, else -1.
s32 MOD_WakeFd();

// Takes the wake-up: from here on the next MOD_WakeProcThread writes again.
void MOD_TakeWakeUp();

// Makes the process thread run a pass soon: something waits on the outbound
// queue or on the process module's queue, a rate-limit count waits for its
// timer, or the thread is to stop. Any thread may call it, also before the
// runtime starts and after it stops (then it does nothing). Many calls before
// the thread runs cost one wake-up.
void MOD_WakeProcThread();

// Wakes the thread of a module that has something new on its queue: the
// process thread sleeps in epoll and is poked, any other waits on its
// semaphore. ulModuleID is the module the queue took the message for: a
// sender's slot may be filled again meanwhile, so its fields are not read.
void MOD_WakeModuleThread(MOD_MODULE_S *pstModule, u32 ulModuleID);
