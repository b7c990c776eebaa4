#ifndef IBP_BP_DEBUG_H
#define IBP_BP_DEBUG_H

#include "ibp/isp_types.h"

IBP_EXTERN_C_BEGIN

IBP_EXTERN_C_END

#endif /* IBP_BP_DEBUG_H */
