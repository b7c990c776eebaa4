#ifndef IBP_ISP_SOCKET_H
#define IBP_ISP_SOCKET_H

#include "ibp/isp_types.h"

IBP_EXTERN_C_BEGIN

IBP_EXTERN_C_END

#endif /* IBP_ISP_SOCKET_H */
