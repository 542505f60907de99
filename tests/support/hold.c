/* Preloaded into the service: holds it after one of its log lines or status calls, so that a test can do
 * something at just that moment.
 *
 * The directory RUX_HOLD has a file "arm", "log N" or "stat N PREFIX": after the Nth line from then on, or after
 * the Nth stat(2) of a path with that prefix, "held" is made, and the caller waits until "arm" is gone. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
static int left;        /* until the call that is held */
static char armed[600]; /* as "arm" was when `left` was set */

static void hold(const char* kind, const char* path) {
    char file[400];
    char text[600] = "";
    const char* base = getenv("RUX_HOLD");
    if (base == NULL) return;
    snprintf(file, sizeof(file), "%s/arm", base);
    const int arm = open(file, O_RDONLY | O_CLOEXEC);
    if (arm < 0) return;
    const ssize_t size = read(arm, text, sizeof(text) - 1);
    close(arm);
    char wanted[8] = "";
    char prefix[500] = "";
    int count = 0;
    if (size <= 0 || sscanf(text, "%7s %d %499s", wanted, &count, prefix) < 2) return;
    if (strcmp(wanted, kind) != 0 || strncmp(path, prefix, strlen(prefix)) != 0) return;

    pthread_mutex_lock(&lock);
    if (strcmp(armed, text) != 0) {
        strcpy(armed, text);
        left = count;
    }
    const int isHeld = --left == 0;
    pthread_mutex_unlock(&lock);
    if (!isHeld) return;
    char held[400];
    snprintf(held, sizeof(held), "%s/held", base);
    close(open(held, O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    while (access(file, F_OK) == 0) usleep(200);
    pthread_mutex_lock(&lock);
    armed[0] = '\0';
    pthread_mutex_unlock(&lock);
}

ssize_t write(int file, const void* bytes, size_t size) {
    ssize_t (*next)(int, const void*, size_t) = dlsym(RTLD_NEXT, "write");
    const ssize_t written = next(file, bytes, size);
    if (file == STDERR_FILENO) hold("log", "-");
    return written;
}

int stat(const char* path, struct stat* status) {
    int (*next)(const char*, struct stat*) = dlsym(RTLD_NEXT, "stat");
    const int result = next(path, status);
    hold("stat", path);
    return result;
}
