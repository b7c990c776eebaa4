// The process thread and the state of the runtime as a whole.
#pragma once

#include "ibp/isp_module.h"

// Entry of the process module's thread: socket, parser, outbound queue.
void *MOD_ProcThreadProc(void *pvModule);

// True between a successful MOD_SysInit and MOD_SysDestroy.
bool MOD_IsSysRunning();

// Makes the process thread run a pass soon: something waits on the outbound
// queue or on the process module's queue, a rate-limit count waits for its
// timer, or the thread is to stop. Any thread may call it, also before the
// runtime starts and after it stops (then it does nothing). Many calls before
// the thread runs cost one wake-up.
void MOD_WakeProcThread();
