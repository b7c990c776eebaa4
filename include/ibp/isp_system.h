/** @file
 * The ISP_ layer over the libc: thin wrappers that forward with at most a
 * small fixed change, and (further down) threads, locks, processes, files,
 * strings, conversions and time. Thin wrappers return what the libc returned,
 * with the reason in errno. */
#ifndef IBP_ISP_SYSTEM_H
#define IBP_ISP_SYSTEM_H

/* First: it asks for the POSIX types (struct sigaction) before any system
 * header is read. */
#include "ibp/isp_types.h"

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

IBP_EXTERN_C_BEGIN

/* ---- memory; the first argument of the allocators is reserved, pass 0 */
/** As malloc(3); the first argument is reserved, pass 0. */
IBP_API void *ISP_malloc(u32 ulReserved, size_t size);
/** As calloc(3); the first argument is reserved, pass 0. */
IBP_API void *ISP_calloc(u32 ulReserved, size_t count, size_t size);
/** As realloc(3); the first argument is reserved, pass 0. */
IBP_API void *ISP_realloc(u32 ulReserved, void *ptr, size_t size);
/** As posix_memalign(3); the first argument is reserved, pass 0. */
IBP_API s32 ISP_posix_memalign(u32 ulReserved, void **ppvMem, size_t alignment, size_t size);
/** Takes the address of the pointer variable: frees the block, clears the variable. */
IBP_API void ISP_free(void *ppvMem);
/** As memcmp(3). */
IBP_API int ISP_memcmp(const void *s1, const void *s2, size_t n);
/** As memcpy(3). */
IBP_API void *ISP_memcpy(void *dest, const void *src, size_t n);
/** As memset(3). */
IBP_API void *ISP_memset(void *s, int c, size_t n);
/** Fills n bytes with zeros; returns s. */
IBP_API void *ISP_memzero(void *s, size_t n);

/* ---- strings */
/** As strcpy(3). */
IBP_API char *ISP_strcpy(char *dest, const char *src);
/** As strncpy(3). */
IBP_API char *ISP_strncpy(char *dest, const char *src, size_t n);
/** As strcat(3). */
IBP_API char *ISP_strcat(char *dest, const char *src);
/** As strncat(3). */
IBP_API char *ISP_strncat(char *dest, const char *src, size_t n);
/** As strcmp(3). */
IBP_API int ISP_strcmp(const char *s1, const char *s2);
/** As strncmp(3). */
IBP_API int ISP_strncmp(const char *s1, const char *s2, size_t n);
/** As strcasecmp(3). */
IBP_API int ISP_strcasecmp(const char *s1, const char *s2);
/** As strncasecmp(3). */
IBP_API int ISP_strncasecmp(const char *s1, const char *s2, size_t n);
/** As strlen(3). */
IBP_API size_t ISP_strlen(const char *s);
/** As strstr(3). */
IBP_API char *ISP_strstr(const char *haystack, const char *needle);
/** As strchr(3). */
IBP_API char *ISP_strchr(const char *s, int c);
/** As strrchr(3). */
IBP_API char *ISP_strrchr(const char *s, int c);
/** As strrchr(3) under its older name. */
IBP_API char *ISP_rindex(const char *s, int c);
/** As strtok_r(3). */
IBP_API char *ISP_strtok_r(char *str, const char *delim, char **saveptr);

/* ---- formatted text */
/** As snprintf(3). */
IBP_API int ISP_snprintf(char *str, size_t size, const char *format, ...) IBP_PRINTF(3, 4);
/** As sscanf(3). */
IBP_API int ISP_sscanf(const char *str, const char *format, ...);
/** As fprintf(3). */
IBP_API int ISP_fprintf(FILE *stream, const char *format, ...) IBP_PRINTF(2, 3);
/** As fscanf(3). */
IBP_API int ISP_fscanf(FILE *stream, const char *format, ...);

/* ---- number parsing */
/** As atof(3). */
IBP_API double ISP_atof(const char *nptr);
/** As atol(3). */
IBP_API long ISP_atol(const char *nptr);
/** As strtol(3). */
IBP_API long ISP_strtol(const char *nptr, char **endptr, int base);
/** As strtoll(3). */
IBP_API long long ISP_strtoll(const char *nptr, char **endptr, int base);

/* ---- characters; the class tests return the raw class bit */
/** As toupper(3). */
IBP_API int ISP_toupper(int c);
/** As tolower(3). */
IBP_API int ISP_tolower(int c);
/** As isalnum(3); not 0 for a letter or digit (the raw class bit). */
IBP_API int ISP_isalnum(int c);
/** As isalpha(3); not 0 for a letter (the raw class bit). */
IBP_API int ISP_isalpha(int c);

/* ---- streams */
/** As fopen(3). */
IBP_API FILE *ISP_fopen(const char *path, const char *mode);
/** As fclose(3). */
IBP_API int ISP_fclose(FILE *stream);
/** As fread(3). */
IBP_API size_t ISP_fread(void *ptr, size_t size, size_t nmemb, FILE *stream);
/** As fwrite(3). */
IBP_API size_t ISP_fwrite(const void *ptr, size_t size, size_t nmemb, FILE *stream);
/** As fflush(3). */
IBP_API int ISP_fflush(FILE *stream);
/** As fseek(3). */
IBP_API int ISP_fseek(FILE *stream, long offset, int whence);
/** As ftell(3). */
IBP_API long ISP_ftell(FILE *stream);
/** As rewind(3). */
IBP_API void ISP_rewind(FILE *stream);
/** As fgetc(3). */
IBP_API int ISP_fgetc(FILE *stream);
/** As fgets(3). */
IBP_API char *ISP_fgets(char *s, int size, FILE *stream);
/** As fputc(3). */
IBP_API int ISP_fputc(int c, FILE *stream);
/** As fputs(3). */
IBP_API int ISP_fputs(const char *s, FILE *stream);
/** As feof(3). */
IBP_API int ISP_feof(FILE *stream);
/** As ferror(3). */
IBP_API int ISP_ferror(FILE *stream);
/** As clearerr(3). */
IBP_API void ISP_clearerr(FILE *stream);
/** As fileno(3). */
IBP_API int ISP_fileno(FILE *stream);

/* ---- files by name */
/** As rename(2). */
IBP_API int ISP_rename(const char *oldpath, const char *newpath);
/** As unlink(2). */
IBP_API int ISP_unlink(const char *path);
/** As remove(3). */
IBP_API int ISP_remove(const char *path);
/** As stat(2). */
IBP_API int ISP_stat(const char *path, struct stat *buf);
/** As lstat(2). */
IBP_API int ISP_lstat(const char *path, struct stat *buf);
/** As access(2). */
IBP_API int ISP_access(const char *path, int mode);
/** As chmod(2). */
IBP_API int ISP_chmod(const char *path, mode_t mode);
/** As umask(2). */
IBP_API mode_t ISP_umask(mode_t mask);
/** As creat(2). */
IBP_API int ISP_creat(const char *path, mode_t mode);
/** As readlink(2). */
IBP_API ssize_t ISP_readlink(const char *path, char *buf, size_t bufsiz);
/** As chdir(2). */
IBP_API int ISP_chdir(const char *path);

/* ---- file descriptors */
/** As open(2). */
IBP_API int ISP_open(const char *path, int flags, ...);
/** As close(2). */
IBP_API int ISP_close(int fd);
/** As read(2). */
IBP_API ssize_t ISP_read(int fd, void *buf, size_t count);
/** As write(2). */
IBP_API ssize_t ISP_write(int fd, const void *buf, size_t count);
/** As ioctl(2). */
IBP_API int ISP_ioctl(int fd, unsigned long request, ...);
/** As fsync(2). */
IBP_API int ISP_fsync(int fd);
/** As fstat(2). */
IBP_API int ISP_fstat(int fd, struct stat *buf);
/** As lseek(2). */
IBP_API off_t ISP_lseek(int fd, off_t offset, int whence);
/** As fcntl(2). */
IBP_API int ISP_fcntl(int fd, int cmd, ...);
/** As fchmod(2). */
IBP_API int ISP_fchmod(int fd, mode_t mode);

/* ---- directories */
/** As opendir(3). */
IBP_API DIR *ISP_opendir(const char *name);
/** As closedir(3). */
IBP_API int ISP_closedir(DIR *dirp);
/** As readdir(3). */
IBP_API struct dirent *ISP_readdir(DIR *dirp);
/** As alphasort(3). */
IBP_API int ISP_alphasort(const struct dirent **a, const struct dirent **b);

/* ---- signals */
/** A signal handler, as signal(2) takes it. */
typedef void (*ISP_SIG_HANDLER_PFN)(int);
/** As sigemptyset(3). */
IBP_API int ISP_sigemptyset(sigset_t *set);
/** As sigaction(2). */
IBP_API int ISP_sigaction(int signum, const struct sigaction *act, struct sigaction *oldact);
/** As signal(2): installs handler for signum and returns the previous one. */
IBP_API ISP_SIG_HANDLER_PFN ISP_signal_set(int signum, ISP_SIG_HANDLER_PFN handler);

/* ---- sockets */
/** As socket(2). */
IBP_API int ISP_socket(int domain, int type, int protocol);
/** As bind(2). */
IBP_API int ISP_bind(int fd, const struct sockaddr *addr, socklen_t addrlen);
/** As connect(2). */
IBP_API int ISP_connect(int fd, const struct sockaddr *addr, socklen_t addrlen);
/** As listen(2). */
IBP_API int ISP_listen(int fd, int backlog);
/** As accept(2). */
IBP_API int ISP_accept(int fd, struct sockaddr *addr, socklen_t *addrlen);
/** As recv(2). */
IBP_API ssize_t ISP_recv(int fd, void *buf, size_t len, int flags);
/** As send(2). */
IBP_API ssize_t ISP_send(int fd, const void *buf, size_t len, int flags);
/** As sendto(2). */
IBP_API ssize_t ISP_sendto(int fd, const void *buf, size_t len, int flags,
                           const struct sockaddr *dest, socklen_t addrlen);
/** As recvfrom(2). */
IBP_API ssize_t ISP_recvfrom(int fd, void *buf, size_t len, int flags,
                             struct sockaddr *src, socklen_t *addrlen);
/** As close(2) of a socket descriptor. */
IBP_API int ISP_closesocket(int fd);
/** As shutdown(2). */
IBP_API int ISP_shutdown(int fd, int how);
/** As setsockopt(2). */
IBP_API int ISP_setsockopt(int fd, int level, int optname, const void *optval, socklen_t optlen);
/** As getsockopt(2). */
IBP_API int ISP_getsockopt(int fd, int level, int optname, void *optval, socklen_t *optlen);
/** As getsockname(2). */
IBP_API int ISP_getsockname(int fd, struct sockaddr *addr, socklen_t *addrlen);
/** As getpeername(2). */
IBP_API int ISP_getpeername(int fd, struct sockaddr *addr, socklen_t *addrlen);
/** As gethostbyname(3). */
IBP_API struct hostent *ISP_gethostbyname(const char *name);
/** As gethostbyaddr(3). */
IBP_API struct hostent *ISP_gethostbyaddr(const void *addr, socklen_t len, int type);
/** As inet_addr(3). */
IBP_API in_addr_t ISP_inet_addr(const char *cp);
/** As inet_aton(3). */
IBP_API int ISP_inet_aton(const char *cp, struct in_addr *inp);
/** As inet_ntoa(3) of the address at pstAddr; the text is in a static buffer. */
IBP_API char *ISP_inet_ntoa(const struct in_addr *pstAddr);
/** As select(2), with the time-out in milliseconds; 0 polls, there is no endless form. */
IBP_API int ISP_select(int nfds, fd_set *readfds, fd_set *writefds, fd_set *exceptfds, s32 lTimeoutMs);
/** As poll(2). */
IBP_API int ISP_poll(struct pollfd *fds, nfds_t nfds, int timeout);

/* ---- byte order: the target is little-endian, so these always swap */
/** Host to network order of 32 bits; swaps on the little-endian target. */
IBP_API u32 ISP_htonl(u32 ulValue);
/** Network to host order of 32 bits; swaps on the little-endian target. */
IBP_API u32 ISP_ntohl(u32 ulValue);
/** Host to network order of 16 bits; swaps on the little-endian target. */
IBP_API u16 ISP_htons(u16 usValue);
/** Network to host order of 16 bits; swaps on the little-endian target. */
IBP_API u16 ISP_ntohs(u16 usValue);
/** 1 on a big-endian machine, 0 on the little-endian target. */
IBP_API u32 ISP_IsBigEndian(void);

/* ---- time */
/** As time(2). */
IBP_API time_t ISP_time(time_t *tloc);
/** As mktime(3). */
IBP_API time_t ISP_mktime(struct tm *tm);
/** As strftime(3). */
IBP_API size_t ISP_strftime(char *s, size_t max, const char *format, const struct tm *tm);
/** As sleep(3). */
IBP_API unsigned int ISP_sleep(unsigned int seconds);
/** As usleep(3). */
IBP_API int ISP_usleep(unsigned int usec);

/* ---- random numbers and the last error */
/** As rand(3). */
IBP_API int ISP_rand(void);
/** The value of errno. */
IBP_API int ISP_getlasterr(void);
/** Sets errno. */
IBP_API void ISP_setlasterr(int value);

/* ================================================================ threads, locks, processes
 * These report 0 / -1 where they add logic of their own, unless noted. */

#if defined(__GNUC__)
/** Marks a function that does not return. */
#define ISP_NORETURN __attribute__((noreturn))
#else
#define ISP_NORETURN
#endif

/** @name Flags of ISP_thr_create
 * Other bits are ignored. JOINABLE wins over DETACHED; FIFO wins over RR, RR
 * over OTHER.
 * @{ */
#define ISP_THR_DETACHED    0x40u    /**< detached thread (the default) */
#define ISP_THR_JOINABLE    0x10000u /**< joinable thread */
#define ISP_THR_SCHED_FIFO  0x20000u /**< SCHED_FIFO with lPriority */
#define ISP_THR_SCHED_RR    0x40000u /**< SCHED_RR with lPriority */
#define ISP_THR_SCHED_OTHER 0x80000u /**< SCHED_OTHER */
/** @} */

/** Entry function of a thread. */
typedef void *(*ISP_THR_ENTRY_PFN)(void *);

/** Creates a thread; lPriority is clamped to the policy's range. pThread may
 * be null. 0 or -1. */
IBP_API s32 ISP_thr_create(ISP_THR_ENTRY_PFN pfnStart, void *pArg, u32 ulFlags,
                           pthread_t *pThread, s32 lPriority);
/** As pthread_cancel(3). */
IBP_API int ISP_thr_cancel(pthread_t thread);
/** As pthread_detach(3). */
IBP_API int ISP_thr_detach(pthread_t thread);
/** As pthread_join(3); the second argument is reserved, pass 0. */
IBP_API int ISP_thr_join(pthread_t thread, u32 ulReserved, void **ppvRetval);
/** As pthread_exit(3). */
IBP_API void ISP_thr_exit(void *pvRetval) ISP_NORETURN;
/** As sched_yield(2). 0 or -1. */
IBP_API s32 ISP_thr_yield(void);
/** As pthread_kill(3). */
IBP_API int ISP_thr_kill(pthread_t thread, int sig);
/** As pthread_self(3). */
IBP_API pthread_t ISP_thr_self(void);
/** As pthread_equal(3). */
IBP_API int ISP_thr_equal(pthread_t t1, pthread_t t2);
/** As nice(2). */
IBP_API int ISP_nice(int inc);

/** @name Condition variables
 * They live in the caller's storage; hHandle is a mutex handle from
 * ISP_mutex_init. The time-out is in milliseconds on CLOCK_REALTIME; the
 * result is 0 or ETIMEDOUT (or another error number).
 * @{ */
/** As pthread_cond_init(3) with default attributes. */
IBP_API int ISP_cond_init(pthread_cond_t *pCond);
/** As pthread_cond_signal(3). */
IBP_API int ISP_cond_signal(pthread_cond_t *pCond);
/** As pthread_cond_wait(3) on the mutex of hHandle. */
IBP_API int ISP_cond_wait(pthread_cond_t *pCond, void *hHandle);
/** As pthread_cond_timedwait(3), waiting at most lMilliSec ms. */
IBP_API int ISP_cond_timedwait(pthread_cond_t *pCond, void *hHandle, s32 lMilliSec);
/** As pthread_cond_destroy(3). */
IBP_API int ISP_cond_destroy(pthread_cond_t *pCond);
/** @} */

/** @name Mutex handles
 * A heap block holding one default (non-recursive) mutex; null means no
 * mutex. lock/unlock return the pthread result, or -1 for a null handle.
 * @{ */
/** A new mutex handle, or null. */
IBP_API void *ISP_mutex_init(void);
/** Destroys and frees a mutex handle; null is ignored. */
IBP_API void ISP_mutex_destroy(void *hHandle);
/** Locks the mutex of a handle. */
IBP_API s32 ISP_mutex_lock(void *hHandle);
/** Unlocks the mutex of a handle. */
IBP_API s32 ISP_mutex_unlock(void *hHandle);
/** @} */

/** As fork(2). */
IBP_API pid_t ISP_fork(void);
/** As exit(3). */
IBP_API void ISP_exit(int status) ISP_NORETURN;
/** As getpid(2). */
IBP_API pid_t ISP_getpid(void);
/** As waitpid(2). */
IBP_API pid_t ISP_waitpid(pid_t pid, int *wstatus, int options);
/** As pipe(2). */
IBP_API int ISP_pipe(int pipefd[2]);
/** As popen(3). */
IBP_API FILE *ISP_popen(const char *command, const char *type);
/** As pclose(3). */
IBP_API int ISP_pclose(FILE *stream);

/** As prctl(2); warns about a PR_SET_NAME name over 15 characters. */
IBP_API int ISP_prctl(int lOption, unsigned long lArg2, unsigned long lArg3,
                      unsigned long lArg4, unsigned long lArg5);
/** Takes the lock file of program pcName under /var/run: 0 when this process
 * now holds it, 1 when another does or it cannot be taken. */
IBP_API s32 ISP_check_running(const char *pcName);
/** Runs pcCmd with /bin/sh -c; returns the raw wait status, or -1. */
IBP_API s32 ISP_system(const char *pcCmd);
/** Entry of the child of ISP_system; not for other callers. */
IBP_API int __isp_system_proc(void *pcCmd);

/* ================================================================ files, strings, conversions, time */

/** A time with nanoseconds. Note the order: nanoseconds first, the reverse
 * of struct timespec. */
typedef struct {
    long lNanoSec; /**< nanoseconds, 0 to 999999999 */
    time_t lSec;   /**< seconds */
} ISP_TIMESPEC_S;

/** A time of day with microseconds. */
typedef struct {
    time_t lSec;    /**< seconds since the epoch */
    long lMicroSec; /**< microseconds, 0 to 999999 */
} ISP_TIMEVAL_S;

/** Copies the contents of pcSrc over pcDst. 0 or -1. */
IBP_API s32 ISP_copy(const char *pcSrc, const char *pcDst);
/** Makes pcPath and its missing parents; existing directories are fine. 0 or -1. */
IBP_API s32 ISP_mkdir(const char *pcPath, u32 ulMode);
/** Removes pcPath and everything under it, pausing *plPauseMs ms after each
 * removed entry when plPauseMs is not null. 0 or -1. */
IBP_API s32 ISP_rmdir(const char *pcPath, const s32 *plPauseMs);

/** The first place of the pattern pcSub in pcStr, or null; ulLen is the
 * length of the pattern, not a limit on pcStr. */
IBP_API char *ISP_strnstr(const char *pcStr, const char *pcSub, u32 ulLen);
/** The last place of the pattern pcSub in pcStr, or null; ulLen as for
 * ISP_strnstr. */
IBP_API char *ISP_strlstr(const char *pcStr, const char *pcSub, u32 ulLen);
/** The first lChar in the first ulLen bytes of pcStr, past a terminator if
 * need be; or null. */
IBP_API char *ISP_strnchr(const char *pcStr, s32 lChar, u32 ulLen);

/** Writes lValue in base lRadix (2 to 36) into pcBuf; returns pcBuf, or null for a bad radix. */
IBP_API char *ISP_ltoa(s32 lValue, char *pcBuf, s32 lRadix);
/** Reads an unsigned decimal number of 64 bits; 0 for a text with anything but digits. */
IBP_API u64 ISP_atodul(const char *pcStr);
/** Writes ullValue in decimal; pcBuf must hold 21 bytes. Returns the number
 * of characters written. */
IBP_API s32 ISP_dultoa(u64 ullValue, char *pcBuf);
/** Host to network order of 64 bits. */
IBP_API u64 ISP_htonll(u64 ullValue);
/** Network to host order of 64 bits. */
IBP_API u64 ISP_ntohll(u64 ullValue);

/** As gmtime(3), the result by value. */
IBP_API struct tm ISP_gmtime(const time_t *pTime);
/** As localtime(3), the result by value. */
IBP_API struct tm ISP_localtime(const time_t *pTime);
/** As localtime_r(3). */
IBP_API struct tm *ISP_localtime_r(const time_t *pTime, struct tm *pstOut);
/** As gettimeofday(2), the result by value. */
IBP_API ISP_TIMEVAL_S ISP_gettimeofday(void);
/** As settimeofday(2). 0 or -1. */
IBP_API s32 ISP_settimeofday(const ISP_TIMEVAL_S *pstTime);
/** As clock_gettime(2) on clock lClock. 0 or -1. */
IBP_API s32 ISP_clock_gettime(s32 lClock, ISP_TIMESPEC_S *pstTime);
/** Milliseconds of CLOCK_MONOTONIC. 0 or -1. */
IBP_API s32 ISP_GetMonotonicTime(u64 *pullMilliSec);
/** Sleeps lMilliSec milliseconds. 0 or -1. */
IBP_API s32 ISP_msleep(s32 lMilliSec);
/** As nanosleep(2). 0 or -1. */
IBP_API s32 ISP_nanosleep(const ISP_TIMESPEC_S *pstReq, ISP_TIMESPEC_S *pstRem);
/** As rand_r(3) with the seed taken by value: the same seed always gives the
 * same number. */
IBP_API int ISP_rand_r(u32 ulSeed);

IBP_EXTERN_C_END

#endif /* IBP_ISP_SYSTEM_H */
