// Thin wrappers: the ISP_ names over the libc. Each forwards its arguments and
// returns the libc's result unchanged, apart from the few fixed deviations
// noted at the function. No state, no lock, no log.
#include "ibp/isp_system.h"

#include <arpa/inet.h>
#include <ctype.h>
#include <fcntl.h>
#include <malloc.h>
#include <strings.h>
#include <sys/ioctl.h>

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>

extern "C" {

// ---------------------------------------------------------------- memory

IBP_API void *ISP_malloc(u32, size_t size)
{
    return size == 0 ? nullptr : malloc(size);
}

IBP_API void *ISP_calloc(u32, size_t count, size_t size) { return calloc(count, size); }
IBP_API void *ISP_realloc(u32, void *ptr, size_t size) { return realloc(ptr, size); }

IBP_API s32 ISP_posix_memalign(u32, void **ppvMem, size_t alignment, size_t size)
{
    if (ppvMem == nullptr)
        return -1;
    *ppvMem = memalign(alignment, size);
    return *ppvMem == nullptr ? -1 : 0;
}

IBP_API void ISP_free(void *ppvMem)
{
    void **ppv = static_cast<void **>(ppvMem);
    if (ppv == nullptr || *ppv == nullptr)
        return;
    free(*ppv);
    *ppv = nullptr;
}

IBP_API int ISP_memcmp(const void *s1, const void *s2, size_t n) { return memcmp(s1, s2, n); }
IBP_API void *ISP_memcpy(void *dest, const void *src, size_t n) { return memcpy(dest, src, n); }
IBP_API void *ISP_memset(void *s, int c, size_t n) { return memset(s, c, n); }
IBP_API void *ISP_memzero(void *s, size_t n) { return memset(s, 0, n); }

// ---------------------------------------------------------------- strings

IBP_API char *ISP_strcpy(char *dest, const char *src) { return strcpy(dest, src); }
IBP_API char *ISP_strncpy(char *dest, const char *src, size_t n) { return strncpy(dest, src, n); }
IBP_API char *ISP_strcat(char *dest, const char *src) { return strcat(dest, src); }
IBP_API char *ISP_strncat(char *dest, const char *src, size_t n) { return strncat(dest, src, n); }
IBP_API int ISP_strcmp(const char *s1, const char *s2) { return strcmp(s1, s2); }
IBP_API int ISP_strncmp(const char *s1, const char *s2, size_t n) { return strncmp(s1, s2, n); }
IBP_API int ISP_strcasecmp(const char *s1, const char *s2) { return strcasecmp(s1, s2); }
IBP_API int ISP_strncasecmp(const char *s1, const char *s2, size_t n) { return strncasecmp(s1, s2, n); }
IBP_API size_t ISP_strlen(const char *s) { return strlen(s); }
IBP_API char *ISP_strstr(const char *h, const char *n) { return const_cast<char *>(strstr(h, n)); }
IBP_API char *ISP_strchr(const char *s, int c) { return const_cast<char *>(strchr(s, c)); }
IBP_API char *ISP_strrchr(const char *s, int c) { return const_cast<char *>(strrchr(s, c)); }
IBP_API char *ISP_rindex(const char *s, int c) { return const_cast<char *>(strrchr(s, c)); }
IBP_API char *ISP_strtok_r(char *str, const char *delim, char **saveptr) { return strtok_r(str, delim, saveptr); }

// ---------------------------------------------------------------- formatted text

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"

IBP_API int ISP_snprintf(char *str, size_t size, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    int ret = vsnprintf(str, size, format, args);
    va_end(args);
    return ret;
}

IBP_API int ISP_sscanf(const char *str, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    int ret = vsscanf(str, format, args);
    va_end(args);
    return ret;
}

IBP_API int ISP_fprintf(FILE *stream, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    int ret = vfprintf(stream, format, args);
    va_end(args);
    return ret;
}

IBP_API int ISP_fscanf(FILE *stream, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    int ret = vfscanf(stream, format, args);
    va_end(args);
    return ret;
}

#pragma GCC diagnostic pop

// ---------------------------------------------------------------- numbers, characters

IBP_API double ISP_atof(const char *nptr) { return atof(nptr); }
IBP_API long ISP_atol(const char *nptr) { return atol(nptr); }
IBP_API long ISP_strtol(const char *nptr, char **endptr, int base) { return strtol(nptr, endptr, base); }
IBP_API long long ISP_strtoll(const char *nptr, char **endptr, int base) { return strtoll(nptr, endptr, base); }
IBP_API int ISP_toupper(int c) { return toupper(c); }
IBP_API int ISP_tolower(int c) { return tolower(c); }
// The raw class bit of the locale's table, not normalised to 1.
IBP_API int ISP_isalnum(int c) { return (*__ctype_b_loc())[c] & static_cast<unsigned short>(_ISalnum); }
IBP_API int ISP_isalpha(int c) { return (*__ctype_b_loc())[c] & static_cast<unsigned short>(_ISalpha); }

// ---------------------------------------------------------------- streams

IBP_API FILE *ISP_fopen(const char *path, const char *mode) { return fopen(path, mode); }
IBP_API int ISP_fclose(FILE *stream) { return fclose(stream); }
IBP_API size_t ISP_fread(void *ptr, size_t size, size_t nmemb, FILE *stream) { return fread(ptr, size, nmemb, stream); }
IBP_API size_t ISP_fwrite(const void *ptr, size_t size, size_t nmemb, FILE *stream) { return fwrite(ptr, size, nmemb, stream); }
IBP_API int ISP_fflush(FILE *stream) { return fflush(stream); }
IBP_API int ISP_fseek(FILE *stream, long offset, int whence) { return fseek(stream, offset, whence); }
IBP_API long ISP_ftell(FILE *stream) { return ftell(stream); }
IBP_API void ISP_rewind(FILE *stream) { rewind(stream); }
IBP_API int ISP_fgetc(FILE *stream) { return fgetc(stream); }
IBP_API char *ISP_fgets(char *s, int size, FILE *stream) { return fgets(s, size, stream); }
IBP_API int ISP_fputc(int c, FILE *stream) { return fputc(c, stream); }
IBP_API int ISP_fputs(const char *s, FILE *stream) { return fputs(s, stream); }
IBP_API int ISP_feof(FILE *stream) { return feof(stream); }
IBP_API int ISP_ferror(FILE *stream) { return ferror(stream); }
IBP_API void ISP_clearerr(FILE *stream) { clearerr(stream); }
IBP_API int ISP_fileno(FILE *stream) { return fileno(stream); }

// ---------------------------------------------------------------- files by name and by descriptor

IBP_API int ISP_rename(const char *oldpath, const char *newpath) { return rename(oldpath, newpath); }
IBP_API int ISP_unlink(const char *path) { return unlink(path); }
IBP_API int ISP_remove(const char *path) { return remove(path); }
IBP_API int ISP_stat(const char *path, struct stat *buf) { return stat(path, buf); }
IBP_API int ISP_lstat(const char *path, struct stat *buf) { return lstat(path, buf); }
IBP_API int ISP_access(const char *path, int mode) { return access(path, mode); }
IBP_API int ISP_chmod(const char *path, mode_t mode) { return chmod(path, mode); }
IBP_API mode_t ISP_umask(mode_t mask) { return umask(mask); }
IBP_API int ISP_creat(const char *path, mode_t mode) { return creat(path, mode); }
IBP_API ssize_t ISP_readlink(const char *path, char *buf, size_t bufsiz) { return readlink(path, buf, bufsiz); }
IBP_API int ISP_chdir(const char *path) { return chdir(path); }

// The mode is only there when the flags ask for a file to be made.
IBP_API int ISP_open(const char *path, int flags, ...)
{
    mode_t mode = 0;
    if ((flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE) {
        va_list args;
        va_start(args, flags);
        mode = static_cast<mode_t>(va_arg(args, unsigned int));
        va_end(args);
    }
    return open(path, flags, mode);
}

IBP_API int ISP_close(int fd) { return close(fd); }
IBP_API ssize_t ISP_read(int fd, void *buf, size_t count) { return read(fd, buf, count); }
IBP_API ssize_t ISP_write(int fd, const void *buf, size_t count) { return write(fd, buf, count); }

// Like the libc, pass the third argument on as a machine word whatever it is.
IBP_API int ISP_ioctl(int fd, unsigned long request, ...)
{
    va_list args;
    va_start(args, request);
    void *arg = va_arg(args, void *);
    va_end(args);
    return ioctl(fd, request, arg);
}

IBP_API int ISP_fcntl(int fd, int cmd, ...)
{
    va_list args;
    va_start(args, cmd);
    void *arg = va_arg(args, void *);
    va_end(args);
    return fcntl(fd, cmd, arg);
}

IBP_API int ISP_fsync(int fd) { return fsync(fd); }
IBP_API int ISP_fstat(int fd, struct stat *buf) { return fstat(fd, buf); }
IBP_API off_t ISP_lseek(int fd, off_t offset, int whence) { return lseek(fd, offset, whence); }
IBP_API int ISP_fchmod(int fd, mode_t mode) { return fchmod(fd, mode); }

// ---------------------------------------------------------------- directories, signals

IBP_API DIR *ISP_opendir(const char *name) { return opendir(name); }
IBP_API int ISP_closedir(DIR *dirp) { return closedir(dirp); }
IBP_API struct dirent *ISP_readdir(DIR *dirp) { return readdir(dirp); }
IBP_API int ISP_alphasort(const struct dirent **a, const struct dirent **b) { return alphasort(a, b); }
IBP_API int ISP_sigemptyset(sigset_t *set) { return sigemptyset(set); }
IBP_API int ISP_sigaction(int signum, const struct sigaction *act, struct sigaction *oldact) { return sigaction(signum, act, oldact); }
IBP_API ISP_SIG_HANDLER_PFN ISP_signal_set(int signum, ISP_SIG_HANDLER_PFN handler) { return signal(signum, handler); }

// ---------------------------------------------------------------- sockets

IBP_API int ISP_socket(int domain, int type, int protocol) { return socket(domain, type, protocol); }
IBP_API int ISP_bind(int fd, const struct sockaddr *addr, socklen_t len) { return bind(fd, addr, len); }
IBP_API int ISP_connect(int fd, const struct sockaddr *addr, socklen_t len) { return connect(fd, addr, len); }
IBP_API int ISP_listen(int fd, int backlog) { return listen(fd, backlog); }
IBP_API int ISP_accept(int fd, struct sockaddr *addr, socklen_t *len) { return accept(fd, addr, len); }
IBP_API ssize_t ISP_recv(int fd, void *buf, size_t len, int flags) { return recv(fd, buf, len, flags); }
IBP_API ssize_t ISP_send(int fd, const void *buf, size_t len, int flags) { return send(fd, buf, len, flags); }
IBP_API ssize_t ISP_sendto(int fd, const void *buf, size_t len, int flags, const struct sockaddr *dest, socklen_t addrlen)
{
    return sendto(fd, buf, len, flags, dest, addrlen);
}
IBP_API ssize_t ISP_recvfrom(int fd, void *buf, size_t len, int flags, struct sockaddr *src, socklen_t *addrlen)
{
    return recvfrom(fd, buf, len, flags, src, addrlen);
}
IBP_API int ISP_closesocket(int fd) { return close(fd); }
IBP_API int ISP_shutdown(int fd, int how) { return shutdown(fd, how); }
IBP_API int ISP_setsockopt(int fd, int level, int name, const void *val, socklen_t len) { return setsockopt(fd, level, name, val, len); }
IBP_API int ISP_getsockopt(int fd, int level, int name, void *val, socklen_t *len) { return getsockopt(fd, level, name, val, len); }
IBP_API int ISP_getsockname(int fd, struct sockaddr *addr, socklen_t *len) { return getsockname(fd, addr, len); }
IBP_API int ISP_getpeername(int fd, struct sockaddr *addr, socklen_t *len) { return getpeername(fd, addr, len); }
IBP_API struct hostent *ISP_gethostbyname(const char *name) { return gethostbyname(name); }
IBP_API struct hostent *ISP_gethostbyaddr(const void *addr, socklen_t len, int type) { return gethostbyaddr(addr, len, type); }

// Null and "" give 0 rather than INADDR_NONE.
IBP_API in_addr_t ISP_inet_addr(const char *cp)
{
    if (cp == nullptr || cp[0] == '\0')
        return 0;
    return inet_addr(cp);
}

IBP_API int ISP_inet_aton(const char *cp, struct in_addr *inp) { return inet_aton(cp, inp); }

IBP_API char *ISP_inet_ntoa(const struct in_addr *pstAddr)
{
    return pstAddr == nullptr ? nullptr : inet_ntoa(*pstAddr);
}

// Milliseconds instead of a struct timeval; a negative value gives negative
// fields, which select refuses.
IBP_API int ISP_select(int nfds, fd_set *readfds, fd_set *writefds, fd_set *exceptfds, s32 lTimeoutMs)
{
    struct timeval stTimeout;
    stTimeout.tv_sec = lTimeoutMs / 1000;
    stTimeout.tv_usec = (lTimeoutMs % 1000) * 1000;
    return select(nfds, readfds, writefds, exceptfds, &stTimeout);
}

IBP_API int ISP_poll(struct pollfd *fds, nfds_t nfds, int timeout) { return poll(fds, nfds, timeout); }

// ---------------------------------------------------------------- byte order
// The target is little-endian: network order is always the reverse.

IBP_API u32 ISP_htonl(u32 ulValue) { return __builtin_bswap32(ulValue); }
IBP_API u32 ISP_ntohl(u32 ulValue) { return __builtin_bswap32(ulValue); }
IBP_API u16 ISP_htons(u16 usValue) { return __builtin_bswap16(usValue); }
IBP_API u16 ISP_ntohs(u16 usValue) { return __builtin_bswap16(usValue); }
IBP_API u32 ISP_IsBigEndian(void) { return 0; }

// ---------------------------------------------------------------- time, random numbers, errno

IBP_API time_t ISP_time(time_t *tloc) { return time(tloc); }
IBP_API time_t ISP_mktime(struct tm *tm) { return mktime(tm); }
IBP_API size_t ISP_strftime(char *s, size_t max, const char *format, const struct tm *tm) { return strftime(s, max, format, tm); }
IBP_API unsigned int ISP_sleep(unsigned int seconds) { return sleep(seconds); }
IBP_API int ISP_usleep(unsigned int usec) { return usleep(usec); }
IBP_API int ISP_rand(void) { return rand(); }
IBP_API int ISP_getlasterr(void) { return errno; }
IBP_API void ISP_setlasterr(int value) { errno = value; }

}  // extern "C"
