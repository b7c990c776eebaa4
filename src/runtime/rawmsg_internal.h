// Inside view of the message header check.
#pragma once

#include "ibp/isp_rawmsg.h"

// True when MSG_CheckHdr would refuse this header; writes no record. The
// parser asks this first, so that the check's own records about bad input
// from the socket come under its rate limit.
bool MSG_HdrIsBad(const MSG_HDR_S *pstHdr);
