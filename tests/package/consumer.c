/* A program of a library user, built against an installed libibp in strict
 * C11: prints the version of the headers and two results of the library. */
#include <ibp/ibp.h>

#include <stdio.h>

/* Taken through a volatile pointer, so the XML reader is linked in: built
 * against the archive, the program then needs Mini-XML from the library's
 * link interface. */
static XML_HANDLE (*volatile gpfnXmlOpen)(const char *) = XML_InitLensFile;

int main(void)
{
    printf("ibp %s: interpolation %lld, digits %u, XML reader %s\n", IBP_VERSION_STRING,
           (long long)ISP_LinInterp_ll(15, 10, 20, 100, 200), (unsigned)ISP_GetBitNum(12345),
           gpfnXmlOpen != NULL ? "linked" : "missing");
    return 0;
}
