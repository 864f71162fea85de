// A program run by a test with its output captured: to completion (run), or
// kept running while the test reads what it prints (Child). Every wait has a
// deadline; a child still running at the end is killed and reaped.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

extern char** environ;

namespace childProcess {

using ms = std::chrono::milliseconds;

class Child {
 public:
  // argv[0] is the program's path; env entries "NAME=VALUE" are added to
  // the test's environment.
  explicit Child(const std::vector<std::string>& argv, const std::vector<std::string>& env = {}) {
    std::vector<std::string> environment(env);
    for (char** e = environ; *e != nullptr; ++e) environment.emplace_back(*e);
    std::vector<char*> args, envp;
    for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    for (const auto& e : environment) envp.push_back(const_cast<char*>(e.c_str()));
    args.push_back(nullptr);
    envp.push_back(nullptr);
    int out[2], err[2];
    if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) return;
    const pid_t parent = getpid();
    mPid = fork();
    if (mPid == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      if (getppid() != parent) _exit(127);
      const int null = open("/dev/null", O_RDONLY);
      if (dup2(null, STDIN_FILENO) < 0 || dup2(out[1], STDOUT_FILENO) < 0 || dup2(err[1], STDERR_FILENO) < 0)
        _exit(127);
      execve(args[0], args.data(), envp.data());
      _exit(127);
    }
    close(out[1]);
    close(err[1]);
    mOut = out[0];
    mErr = err[0];
  }
  ~Child() {
    if (running()) {
      kill(mPid, SIGKILL);
      waitpid(mPid, nullptr, 0);
    }
    if (mOut >= 0) close(mOut);
    if (mErr >= 0) close(mErr);
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  pid_t pid() const { return mPid; }
  const std::string& out() const { return mOutText; }
  const std::string& err() const { return mErrText; }
  void signal(int sig) {
    if (running()) kill(mPid, sig);
  }

  // Reads output until pred holds or the deadline passes; pred's last value.
  bool waitForOutput(const std::function<bool()>& pred, ms deadline) {
    const auto end = std::chrono::steady_clock::now() + deadline;
    while (!pred()) {
      const auto left = std::chrono::duration_cast<ms>(end - std::chrono::steady_clock::now()).count();
      if (left <= 0 || !readSome(static_cast<int>(left))) return pred();
    }
    return true;
  }
  // Reads everything until the program ends; its exit code, or -1 when it
  // was killed by a signal or still ran at the deadline (then it is killed).
  int wait(ms deadline = ms(20000)) {
    waitForOutput([] { return false; }, deadline);
    if (running()) kill(mPid, SIGKILL);
    int status = 0;
    if (mPid > 0 && waitpid(mPid, &status, 0) == mPid) {
      mExit = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
      mPid = -1;
    }
    return mExit;
  }

 private:
  bool running() const { return mPid > 0; }
  // One poll of both pipes; false once both are closed or the time is up.
  bool readSome(int timeoutMs) {
    pollfd fds[2] = {{mOut, POLLIN, 0}, {mErr, POLLIN, 0}};
    if (mOut < 0 && mErr < 0) return false;
    if (poll(fds, 2, timeoutMs) <= 0) return false;
    drain(fds[0], mOut, mOutText);
    drain(fds[1], mErr, mErrText);
    return true;
  }
  static void drain(const pollfd& polled, int& fd, std::string& text) {
    if (fd < 0 || polled.revents == 0) return;
    char chunk[4096];
    const ssize_t n = read(fd, chunk, sizeof chunk);
    if (n > 0) {
      text.append(chunk, static_cast<size_t>(n));
    } else {
      close(fd);
      fd = -1;
    }
  }

  pid_t mPid = -1;
  int mOut = -1, mErr = -1;
  int mExit = -1;
  std::string mOutText, mErrText;
};

struct Outcome {
  int exitCode;  // -1: killed, or no end within the deadline
  std::string out, err;
};

inline Outcome run(const std::vector<std::string>& argv, const std::vector<std::string>& env = {},
                   ms deadline = ms(20000)) {
  Child child(argv, env);
  const int code = child.wait(deadline);
  return {code, child.out(), child.err()};
}

}  // namespace childProcess
