/* The ISP_ layer over the libc: thin wrappers that forward with at most a
 * small fixed change, and (further down) threads, locks, processes, files,
 * strings, conversions and time. Thin wrappers return what the libc returned,
 * with the reason in errno. */
#ifndef IBP_ISP_SYSTEM_H
#define IBP_ISP_SYSTEM_H

#include <dirent.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <time.h>
#include <unistd.h>

#include "ibp/isp_types.h"

IBP_EXTERN_C_BEGIN

/* ---- memory; the first argument of the allocators is reserved, pass 0 */
IBP_API void *ISP_malloc(u32 ulReserved, size_t size);
IBP_API void *ISP_calloc(u32 ulReserved, size_t count, size_t size);
IBP_API void *ISP_realloc(u32 ulReserved, void *ptr, size_t size);
IBP_API s32 ISP_posix_memalign(u32 ulReserved, void **ppvMem, size_t alignment, size_t size);
/* Takes the address of the pointer variable: frees the block, clears the variable. */
IBP_API void ISP_free(void *ppvMem);
IBP_API int ISP_memcmp(const void *s1, const void *s2, size_t n);
IBP_API void *ISP_memcpy(void *dest, const void *src, size_t n);
IBP_API void *ISP_memset(void *s, int c, size_t n);
IBP_API void *ISP_memzero(void *s, size_t n);

/* ---- strings */
IBP_API char *ISP_strcpy(char *dest, const char *src);
IBP_API char *ISP_strncpy(char *dest, const char *src, size_t n);
IBP_API char *ISP_strcat(char *dest, const char *src);
IBP_API char *ISP_strncat(char *dest, const char *src, size_t n);
IBP_API int ISP_strcmp(const char *s1, const char *s2);
IBP_API int ISP_strncmp(const char *s1, const char *s2, size_t n);
IBP_API int ISP_strcasecmp(const char *s1, const char *s2);
IBP_API int ISP_strncasecmp(const char *s1, const char *s2, size_t n);
IBP_API size_t ISP_strlen(const char *s);
IBP_API char *ISP_strstr(const char *haystack, const char *needle);
IBP_API char *ISP_strchr(const char *s, int c);
IBP_API char *ISP_strrchr(const char *s, int c);
IBP_API char *ISP_rindex(const char *s, int c);
IBP_API char *ISP_strtok_r(char *str, const char *delim, char **saveptr);

/* ---- formatted text */
IBP_API int ISP_snprintf(char *str, size_t size, const char *format, ...) IBP_PRINTF(3, 4);
IBP_API int ISP_sscanf(const char *str, const char *format, ...);
IBP_API int ISP_fprintf(FILE *stream, const char *format, ...) IBP_PRINTF(2, 3);
IBP_API int ISP_fscanf(FILE *stream, const char *format, ...);

/* ---- number parsing */
IBP_API double ISP_atof(const char *nptr);
IBP_API long ISP_atol(const char *nptr);
IBP_API long ISP_strtol(const char *nptr, char **endptr, int base);
IBP_API long long ISP_strtoll(const char *nptr, char **endptr, int base);

/* ---- characters; the class tests return the raw class bit */
IBP_API int ISP_toupper(int c);
IBP_API int ISP_tolower(int c);
IBP_API int ISP_isalnum(int c);
IBP_API int ISP_isalpha(int c);

/* ---- streams */
IBP_API FILE *ISP_fopen(const char *path, const char *mode);
IBP_API int ISP_fclose(FILE *stream);
IBP_API size_t ISP_fread(void *ptr, size_t size, size_t nmemb, FILE *stream);
IBP_API size_t ISP_fwrite(const void *ptr, size_t size, size_t nmemb, FILE *stream);
IBP_API int ISP_fflush(FILE *stream);
IBP_API int ISP_fseek(FILE *stream, long offset, int whence);
IBP_API long ISP_ftell(FILE *stream);
IBP_API void ISP_rewind(FILE *stream);
IBP_API int ISP_fgetc(FILE *stream);
IBP_API char *ISP_fgets(char *s, int size, FILE *stream);
IBP_API int ISP_fputc(int c, FILE *stream);
IBP_API int ISP_fputs(const char *s, FILE *stream);
IBP_API int ISP_feof(FILE *stream);
IBP_API int ISP_ferror(FILE *stream);
IBP_API void ISP_clearerr(FILE *stream);
IBP_API int ISP_fileno(FILE *stream);

/* ---- files by name */
IBP_API int ISP_rename(const char *oldpath, const char *newpath);
IBP_API int ISP_unlink(const char *path);
IBP_API int ISP_remove(const char *path);
IBP_API int ISP_stat(const char *path, struct stat *buf);
IBP_API int ISP_lstat(const char *path, struct stat *buf);
IBP_API int ISP_access(const char *path, int mode);
IBP_API int ISP_chmod(const char *path, mode_t mode);
IBP_API mode_t ISP_umask(mode_t mask);
IBP_API int ISP_creat(const char *path, mode_t mode);
IBP_API ssize_t ISP_readlink(const char *path, char *buf, size_t bufsiz);
IBP_API int ISP_chdir(const char *path);

/* ---- file descriptors */
IBP_API int ISP_open(const char *path, int flags, ...);
IBP_API int ISP_close(int fd);
IBP_API ssize_t ISP_read(int fd, void *buf, size_t count);
IBP_API ssize_t ISP_write(int fd, const void *buf, size_t count);
IBP_API int ISP_ioctl(int fd, unsigned long request, ...);
IBP_API int ISP_fsync(int fd);
IBP_API int ISP_fstat(int fd, struct stat *buf);
IBP_API off_t ISP_lseek(int fd, off_t offset, int whence);
IBP_API int ISP_fcntl(int fd, int cmd, ...);
IBP_API int ISP_fchmod(int fd, mode_t mode);

/* ---- directories */
IBP_API DIR *ISP_opendir(const char *name);
IBP_API int ISP_closedir(DIR *dirp);
IBP_API struct dirent *ISP_readdir(DIR *dirp);
IBP_API int ISP_alphasort(const struct dirent **a, const struct dirent **b);

/* ---- signals */
typedef void (*ISP_SIG_HANDLER_PFN)(int);
IBP_API int ISP_sigemptyset(sigset_t *set);
IBP_API int ISP_sigaction(int signum, const struct sigaction *act, struct sigaction *oldact);
IBP_API ISP_SIG_HANDLER_PFN ISP_signal_set(int signum, ISP_SIG_HANDLER_PFN handler);

/* ---- sockets */
IBP_API int ISP_socket(int domain, int type, int protocol);
IBP_API int ISP_bind(int fd, const struct sockaddr *addr, socklen_t addrlen);
IBP_API int ISP_connect(int fd, const struct sockaddr *addr, socklen_t addrlen);
IBP_API int ISP_listen(int fd, int backlog);
IBP_API int ISP_accept(int fd, struct sockaddr *addr, socklen_t *addrlen);
IBP_API ssize_t ISP_recv(int fd, void *buf, size_t len, int flags);
IBP_API ssize_t ISP_send(int fd, const void *buf, size_t len, int flags);
IBP_API ssize_t ISP_sendto(int fd, const void *buf, size_t len, int flags,
                           const struct sockaddr *dest, socklen_t addrlen);
IBP_API ssize_t ISP_recvfrom(int fd, void *buf, size_t len, int flags,
                             struct sockaddr *src, socklen_t *addrlen);
IBP_API int ISP_closesocket(int fd);
IBP_API int ISP_shutdown(int fd, int how);
IBP_API int ISP_setsockopt(int fd, int level, int optname, const void *optval, socklen_t optlen);
IBP_API int ISP_getsockopt(int fd, int level, int optname, void *optval, socklen_t *optlen);
IBP_API int ISP_getsockname(int fd, struct sockaddr *addr, socklen_t *addrlen);
IBP_API int ISP_getpeername(int fd, struct sockaddr *addr, socklen_t *addrlen);
IBP_API struct hostent *ISP_gethostbyname(const char *name);
IBP_API struct hostent *ISP_gethostbyaddr(const void *addr, socklen_t len, int type);
IBP_API in_addr_t ISP_inet_addr(const char *cp);
IBP_API int ISP_inet_aton(const char *cp, struct in_addr *inp);
IBP_API char *ISP_inet_ntoa(const struct in_addr *pstAddr);
/* The time-out is in milliseconds; 0 polls, there is no endless form. */
IBP_API int ISP_select(int nfds, fd_set *readfds, fd_set *writefds, fd_set *exceptfds, s32 lTimeoutMs);
IBP_API int ISP_poll(struct pollfd *fds, nfds_t nfds, int timeout);

/* ---- byte order: the target is little-endian, so these always swap */
IBP_API u32 ISP_htonl(u32 ulValue);
IBP_API u32 ISP_ntohl(u32 ulValue);
IBP_API u16 ISP_htons(u16 usValue);
IBP_API u16 ISP_ntohs(u16 usValue);
IBP_API u32 ISP_IsBigEndian(void);

/* ---- time */
IBP_API time_t ISP_time(time_t *tloc);
IBP_API time_t ISP_mktime(struct tm *tm);
IBP_API size_t ISP_strftime(char *s, size_t max, const char *format, const struct tm *tm);
IBP_API unsigned int ISP_sleep(unsigned int seconds);
IBP_API int ISP_usleep(unsigned int usec);

/* ---- random numbers and the last error */
IBP_API int ISP_rand(void);
IBP_API int ISP_getlasterr(void);
IBP_API void ISP_setlasterr(int value);

/* ================================================================ threads, locks, processes
 * These report 0 / -1 where they add logic of their own, unless noted. */

#if defined(__GNUC__)
#define ISP_NORETURN __attribute__((noreturn))
#else
#define ISP_NORETURN
#endif

/* Flag word of ISP_thr_create; other bits are ignored. JOINABLE wins over
 * DETACHED; FIFO wins over RR, RR over OTHER. */
#define ISP_THR_DETACHED    0x40u
#define ISP_THR_JOINABLE    0x10000u
#define ISP_THR_SCHED_FIFO  0x20000u
#define ISP_THR_SCHED_RR    0x40000u
#define ISP_THR_SCHED_OTHER 0x80000u

typedef void *(*ISP_THR_ENTRY_PFN)(void *);

/* Creates a thread; lPriority is clamped to the policy's range. pThread may
 * be null. 0 or -1. */
IBP_API s32 ISP_thr_create(ISP_THR_ENTRY_PFN pfnStart, void *pArg, u32 ulFlags,
                           pthread_t *pThread, s32 lPriority);
IBP_API int ISP_thr_cancel(pthread_t thread);
IBP_API int ISP_thr_detach(pthread_t thread);
/* The second argument is reserved; pass 0. */
IBP_API int ISP_thr_join(pthread_t thread, u32 ulReserved, void **ppvRetval);
IBP_API void ISP_thr_exit(void *pvRetval) ISP_NORETURN;
IBP_API s32 ISP_thr_yield(void);
IBP_API int ISP_thr_kill(pthread_t thread, int sig);
IBP_API pthread_t ISP_thr_self(void);
IBP_API int ISP_thr_equal(pthread_t t1, pthread_t t2);
IBP_API int ISP_nice(int inc);

/* Condition variables live in the caller's storage; hHandle is a mutex
 * handle from ISP_mutex_init. The time-out is in milliseconds on
 * CLOCK_REALTIME; the result is 0 or ETIMEDOUT (or another error number). */
IBP_API int ISP_cond_init(pthread_cond_t *pCond);
IBP_API int ISP_cond_signal(pthread_cond_t *pCond);
IBP_API int ISP_cond_wait(pthread_cond_t *pCond, void *hHandle);
IBP_API int ISP_cond_timedwait(pthread_cond_t *pCond, void *hHandle, s32 lMilliSec);
IBP_API int ISP_cond_destroy(pthread_cond_t *pCond);

/* Mutex handles: a heap block holding one default (non-recursive) mutex;
 * null means no mutex. lock/unlock return the pthread result, or -1 for a
 * null handle. */
IBP_API void *ISP_mutex_init(void);
IBP_API void ISP_mutex_destroy(void *hHandle);
IBP_API s32 ISP_mutex_lock(void *hHandle);
IBP_API s32 ISP_mutex_unlock(void *hHandle);

IBP_API pid_t ISP_fork(void);
IBP_API void ISP_exit(int status) ISP_NORETURN;
IBP_API pid_t ISP_getpid(void);
IBP_API pid_t ISP_waitpid(pid_t pid, int *wstatus, int options);
IBP_API int ISP_pipe(int pipefd[2]);
IBP_API FILE *ISP_popen(const char *command, const char *type);
IBP_API int ISP_pclose(FILE *stream);

/* Forwards to prctl; warns about a PR_SET_NAME name over 15 characters. */
IBP_API int ISP_prctl(int lOption, unsigned long lArg2, unsigned long lArg3,
                      unsigned long lArg4, unsigned long lArg5);
/* 0 when this process now holds the lock of program pcName, 1 otherwise. */
IBP_API s32 ISP_check_running(const char *pcName);
/* Runs pcCmd with /bin/sh -c; returns the raw wait status, or -1. */
IBP_API s32 ISP_system(const char *pcCmd);
/* Entry of the child of ISP_system; not for other callers. */
IBP_API int __isp_system_proc(void *pcCmd);

/* ================================================================ files, strings, conversions, time */

/* Note the order: nanoseconds first, the reverse of struct timespec. */
typedef struct {
    long lNanoSec;
    time_t lSec;
} ISP_TIMESPEC_S;

typedef struct {
    time_t lSec;
    long lMicroSec;
} ISP_TIMEVAL_S;

/* Copies the contents of pcSrc over pcDst. 0 or -1. */
IBP_API s32 ISP_copy(const char *pcSrc, const char *pcDst);
/* Makes pcPath and its missing parents; existing directories are fine. */
IBP_API s32 ISP_mkdir(const char *pcPath, u32 ulMode);
/* Removes pcPath and everything under it, pausing *plPauseMs ms after each
 * removed entry when plPauseMs is not null. */
IBP_API s32 ISP_rmdir(const char *pcPath, const s32 *plPauseMs);

/* ulLen is the length of the pattern pcSub, not a limit on pcStr. */
IBP_API char *ISP_strnstr(const char *pcStr, const char *pcSub, u32 ulLen);
IBP_API char *ISP_strlstr(const char *pcStr, const char *pcSub, u32 ulLen);
/* Searches the first ulLen bytes of pcStr, past a terminator if need be. */
IBP_API char *ISP_strnchr(const char *pcStr, s32 lChar, u32 ulLen);

IBP_API char *ISP_ltoa(s32 lValue, char *pcBuf, s32 lRadix);
IBP_API u64 ISP_atodul(const char *pcStr);
/* pcBuf must hold 21 bytes; returns the number of characters written. */
IBP_API s32 ISP_dultoa(u64 ullValue, char *pcBuf);
IBP_API u64 ISP_htonll(u64 ullValue);
IBP_API u64 ISP_ntohll(u64 ullValue);

IBP_API struct tm ISP_gmtime(const time_t *pTime);
IBP_API struct tm ISP_localtime(const time_t *pTime);
IBP_API struct tm *ISP_localtime_r(const time_t *pTime, struct tm *pstOut);
IBP_API ISP_TIMEVAL_S ISP_gettimeofday(void);
IBP_API s32 ISP_settimeofday(const ISP_TIMEVAL_S *pstTime);
IBP_API s32 ISP_clock_gettime(s32 lClock, ISP_TIMESPEC_S *pstTime);
IBP_API s32 ISP_GetMonotonicTime(u64 *pullMilliSec);
IBP_API s32 ISP_msleep(s32 lMilliSec);
IBP_API s32 ISP_nanosleep(const ISP_TIMESPEC_S *pstReq, ISP_TIMESPEC_S *pstRem);
/* The seed is taken by value: the same seed always gives the same number. */
IBP_API int ISP_rand_r(u32 ulSeed);

IBP_EXTERN_C_END

#endif /* IBP_ISP_SYSTEM_H */
