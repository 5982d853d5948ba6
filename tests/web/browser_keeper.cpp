// zvr_browser_keeper PROGRAM [ARGS...]
//
// Runs a browser's WebDriver server and reaps every process of the browser. The driver starts
// the browser, the browser starts its own helpers, and some of them outlive their parents (cog's
// web and network processes, Chromium's crash handler); orphans go to the nearest child
// subreaper, which this program makes itself. PROGRAM runs as the leader of a process group of
// its own.
//
// The keeper runs until its standard input ends (the test closed its end of the pipe, or the
// test died) or the driver exits. Then it sends SIGTERM to the driver's group, gives it a second,
// sends SIGKILL to the group and to every child it still has, and reaps them all. It exits 0
// when everything was reaped, 1 when something could not be reaped within ten seconds.

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

// Reaps whatever has ended; true when no child is left at all.
bool reapEnded() {
  for (;;) {
    const pid_t pid = waitpid(-1, nullptr, WNOHANG);
    if (pid > 0) continue;
    return pid < 0 && errno == ECHILD;
  }
}

// The children of this process, read from /proc: the orphans it adopted included.
std::vector<pid_t> children() {
  std::vector<pid_t> found;
  const pid_t self = getpid();
  DIR* proc = opendir("/proc");
  if (proc == nullptr) return found;
  while (dirent* entry = readdir(proc)) {
    char* end = nullptr;
    const long pid = strtol(entry->d_name, &end, 10);
    if (end == entry->d_name || *end != '\0') continue;
    char path[64];
    snprintf(path, sizeof path, "/proc/%ld/stat", pid);
    FILE* stat = fopen(path, "r");
    if (stat == nullptr) continue;
    char text[1024];
    const size_t length = fread(text, 1, sizeof text - 1, stat);
    fclose(stat);
    text[length] = '\0';
    // "pid (name) state ppid ...": the name may hold anything, so parse after its last ')'.
    const char* close = strrchr(text, ')');
    char state = 0;
    long parent = 0;
    if (close != nullptr && sscanf(close + 1, " %c %ld", &state, &parent) == 2 && parent == self) {
      found.push_back(static_cast<pid_t>(pid));
    }
  }
  closedir(proc);
  return found;
}

void pause(int ms) {
  timespec t{ms / 1000, (ms % 1000) * 1000000L};
  nanosleep(&t, nullptr);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    fprintf(stderr, "usage: %s PROGRAM [ARGS...]\n", argv[0]);
    return 2;
  }
  if (prctl(PR_SET_CHILD_SUBREAPER, 1) != 0) {
    perror("keeper: PR_SET_CHILD_SUBREAPER");
    return 2;
  }
  signal(SIGPIPE, SIG_IGN);
  // SIGTERM and SIGINT end the wait just as the end of the input does. They stay blocked but
  // inside ppoll(), so one that arrives while the keeper reaps is held until the next ppoll()
  // instead of being lost between two calls.
  signal(SIGTERM, [](int) {});
  signal(SIGINT, [](int) {});
  sigset_t stopSignals, waitMask;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGTERM);
  sigaddset(&stopSignals, SIGINT);
  sigprocmask(SIG_BLOCK, &stopSignals, &waitMask);
  sigdelset(&waitMask, SIGTERM);
  sigdelset(&waitMask, SIGINT);

  const pid_t driver = fork();
  if (driver < 0) {
    perror("keeper: fork");
    return 2;
  }
  if (driver == 0) {
    setpgid(0, 0);
    // The driver reads nothing: its input is not the keeper's pipe, whose end it would keep.
    const int null = open("/dev/null", O_RDONLY);
    if (null >= 0) dup2(null, 0);
    signal(SIGTERM, SIG_DFL);
    signal(SIGINT, SIG_DFL);
    sigprocmask(SIG_UNBLOCK, &stopSignals, nullptr);  // a blocked mask would outlive exec
    execvp(argv[1], argv + 1);
    perror("keeper: exec");
    _exit(127);
  }
  setpgid(driver, driver);  // as well as in the child, so that it holds whichever runs first

  bool driverRunning = true;
  for (;;) {
    pollfd input{0, POLLIN, 0};
    const timespec tick{0, 100 * 1000000L};
    const int ready = ppoll(&input, 1, &tick, &waitMask);
    if (ready < 0 && errno == EINTR) break;  // SIGTERM or SIGINT
    if (ready > 0) {
      char byte;
      const ssize_t got = read(0, &byte, 1);
      if (got <= 0) break;  // the end of the input: stop
    }
    int status = 0;
    while (true) {
      const pid_t pid = waitpid(-1, &status, WNOHANG);
      if (pid <= 0) break;
      if (pid == driver) driverRunning = false;
    }
    if (!driverRunning) break;
  }

  kill(-driver, SIGTERM);
  const Clock::time_point termDeadline = Clock::now() + std::chrono::seconds(1);
  while (!reapEnded() && Clock::now() < termDeadline) pause(10);

  const Clock::time_point deadline = Clock::now() + std::chrono::seconds(10);
  for (;;) {
    kill(-driver, SIGKILL);
    for (pid_t child : children()) kill(child, SIGKILL);
    if (reapEnded()) return 0;
    if (Clock::now() >= deadline) break;
    pause(10);
  }
  fprintf(stderr, "keeper: children left unreaped after 10 s\n");
  return 1;
}
