/* Compiled as strict C11 with every warning an error: the public headers
 * must stay plain C. */
#include "ibp/ibp.h"

int main(void)
{
    MSG_HDR_S stHdr = {0};
    return (int)(sizeof(stHdr) == MSG_HDR_LEN ? 0 : 1);
}
