/* A program of a library user, built against an installed libibp in strict
 * C11: prints the version of the headers and two results of the library. */
#include <ibp/ibp.h>

#include <stdio.h>

int main(void)
{
    printf("ibp %s: interpolation %lld, digits %u\n", IBP_VERSION_STRING,
           (long long)ISP_LinInterp_ll(15, 10, 20, 100, 200), (unsigned)ISP_GetBitNum(12345));
    return 0;
}
