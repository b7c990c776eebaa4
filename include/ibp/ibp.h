/** @file
 * Everything the library exports. */
#ifndef IBP_IBP_H
#define IBP_IBP_H

#include "ibp/isp_types.h"
#include "ibp/ibp_version.h"
#include "ibp/isp_system.h"
#include "ibp/isp_log.h"
#include "ibp/isp_rawmsg.h"
#include "ibp/isp_module.h"
#include "ibp/isp_sendmsg.h"
#include "ibp/isp_circbuf.h"
#include "ibp/isp_socket.h"
#include "ibp/isp_cmd.h"
#include "ibp/bp_debug.h"
#include "ibp/isp_cli.h"
#include "ibp/isp_xml.h"
#include "ibp/isp_util.h"
#include "ibp/isp_interface.h"
#include "ibp/isp_stat.h"
#include "ibp/isp_bp.h"

#endif /* IBP_IBP_H */
