// The same headers seen from C++: C linkage, no name clashes.
#include "ibp/ibp.h"

int main()
{
    MSG_HDR_S stHdr{};
    return sizeof(stHdr) == MSG_HDR_LEN ? 0 : 1;
}
