/* heap_probe: preloaded into the service by the soak run (scripts/soak.sh)
 * beside AddressSanitizer's runtime. A thread of its own writes, every 100 ms,
 * the bytes that the program holds on the heap by the sanitizer's own count
 * into the file named by IBP_SOAK_HEAP_FILE, replacing it whole.
 *
 * Why: the resident memory of a sanitized program also grows with the
 * allocator's caches of freed blocks, a few MiB spread over many minutes
 * under this traffic, with no block kept. The count of bytes in use tells a
 * block that is kept from memory that the allocator keeps. */
#include <fcntl.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

/* Present when the sanitizer's runtime is loaded; otherwise the probe idles. */
extern size_t __sanitizer_get_current_allocated_bytes(void) __attribute__((weak));

static void *heap_probe_run(void *arg)
{
    const char *path = arg;
    char tmp[4096];
    if (snprintf(tmp, sizeof(tmp), "%s.new", path) >= (int)sizeof(tmp))
        return NULL;
    const struct timespec tick = {0, 100 * 1000 * 1000};
    for (;;) {
        /* No stream: the probe itself takes nothing from the heap it counts. */
        char text[32];
        int len = snprintf(text, sizeof(text), "%zu\n", __sanitizer_get_current_allocated_bytes());
        int fd = open(tmp, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        if (fd >= 0) {
            int whole = write(fd, text, (size_t)len) == len;
            if (close(fd) == 0 && whole)
                rename(tmp, path);
        }
        nanosleep(&tick, NULL);
    }
    return NULL;
}

__attribute__((constructor)) static void heap_probe_start(void)
{
    const char *path = getenv("IBP_SOAK_HEAP_FILE");
    pthread_t thread;
    if (path == NULL || *path == '\0' || __sanitizer_get_current_allocated_bytes == NULL)
        return;
    if (pthread_create(&thread, NULL, heap_probe_run, (void *)path) == 0)
        pthread_detach(thread);
}
