// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

// A program without the library. Its threads stand still in the kernel, at several depths; it does
// what standing_process.h asks for on its standard input, and answers on its standard output.

#include <dlfcn.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

static pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t never = PTHREAD_COND_INITIALIZER;
static int releasePipe[2];

static void standInHandler(int number) {
    (void)number;
    pause();
}

static int standInRead(void) {
    char released = 0;
    return (int)read(releasePipe[0], &released, 1);
}

__attribute__((noinline)) static int standIn(intptr_t kind) {
    switch (kind % 4) {
        case 0:
            return poll(NULL, 0, -1);
        case 1:
            pthread_mutex_lock(&mutex);
            return pthread_cond_wait(&never, &mutex);
        case 2:
            return (int)sleep(1000000);
        default:
            return pthread_kill(pthread_self(), SIGUSR1);
    }
}

__attribute__((noinline)) static int descend(intptr_t depth, intptr_t kind) {
    volatile char room[64];
    room[0] = 1;
    return (depth == 0 ? standIn(kind) : descend(depth - 1, kind)) + room[0];
}

static void* runDeep(void* kind) {
    descend(3 * (intptr_t)kind, (intptr_t)kind);
    return NULL;
}

static void* runPlugin(void* handle) {
    ((int (*)(int (*)(void)))dlsym(handle, "callThrough"))(&standInRead);
    return NULL;
}

static const char* copyToMemory(const char* path) {
    static char name[32];
    static char bytes[1 << 20];
    FILE* const file = fopen(path, "rb");
    const size_t size = fread(bytes, 1, sizeof(bytes), file);
    const int memory = memfd_create("plugin", 0);
    fclose(file);
    snprintf(name, sizeof(name), "/proc/self/fd/%d", memory);
    return write(memory, bytes, size) == (ssize_t)size ? name : "";
}

static void obey(const char* command, const char* operand, char** arguments) {
    static void* handle;
    static pthread_t thread;
    if (strcmp(command, "unload") == 0) {
        if (write(releasePipe[1], "", 1) == 1) {
            pthread_join(thread, NULL);
            dlclose(handle);
        }
    } else if (strcmp(command, "execute") == 0) {
        execv(operand, arguments);
    } else {
        handle = dlopen(strcmp(command, "copy") == 0 ? copyToMemory(operand) : operand, RTLD_NOW);
        if (handle == NULL) {
            _exit(1);
        }
        pthread_create(&thread, NULL, &runPlugin, handle);
    }
}

int main(int count, char** arguments) {
    (void)count;
    signal(SIGUSR1, &standInHandler);
    if (pipe(releasePipe) != 0) {
        return 1;
    }
    for (intptr_t kind = 0; kind < 8; ++kind) {
        pthread_t thread;
        pthread_create(&thread, NULL, &runDeep, (void*)kind);
    }
    puts("ready");
    fflush(stdout);
    char command[16];
    char operand[4096];
    while (scanf("%15s %4095s", command, operand) == 2) {
        obey(command, operand, arguments);
        puts("done");
        fflush(stdout);
    }
    _exit(0);
}
