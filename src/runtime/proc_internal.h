// The process thread and the state of the runtime as a whole.
#pragma once

#include "ibp/isp_module.h"

// Entry of the process module's thread: socket, parser, outbound queue.
void *MOD_ProcThreadProc(void *pvModule);

// True between a successful MOD_SysInit and MOD_SysDestroy.
bool MOD_IsSysRunning();
