// SPDX-License-Identifier: Apache-2.0
#include "state.h"

#include <fcntl.h>
#include <pthread.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

static struct State* state;
static struct Process* own;

static void become_child(void) {
  own = &state->processes[1];
  own->pid = getpid();
}

struct State* verify_map_state(void) {
  const char* path = getenv("VERIFY_STATE");
  int fd = path == NULL ? -1 : open(path, O_RDWR | O_CLOEXEC);
  if (fd < 0) {
    return NULL;
  }
  void* memory = mmap(NULL, sizeof(struct State), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  close(fd);
  if (memory == MAP_FAILED || pthread_atfork(NULL, NULL, become_child) != 0) {
    return NULL;
  }
  state = memory;
  own = &state->processes[0];
  own->pid = getpid();
  return state;
}

struct Process* verify_process(void) {
  return own;
}
