#pragma once

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <string>
#include <vector>

namespace qztest {

// Runs the program argv[0] with its arguments, each passed as written (quoted for the shell that
// sets up the redirections), `input` on its standard input. Returns its exit code (-1 when it
// could not be started or did not exit); `out` gets its standard output, `err` its standard error.
int RunProgram(const std::vector<std::string>& argv, const std::string& input, std::string& out, std::string& err);

// Runs `script` with /usr/bin/python3 (the interpreter that has python3-jwt and
// python3-cryptography), as RunProgram does.
int RunPython(const std::string& script, const std::string& input, std::string& out, std::string& err);

// Starts argv[0] with its arguments in the background (in `dir` when set), its standard output and
// error into the file `log`; its pid, -1 when it cannot fork. It gets SIGTERM when the thread that
// started it ends, so a suite that is killed leaves no server behind: start it from the main thread.
inline pid_t StartProgram(const std::vector<std::string>& argv, const std::string& log, const std::string& dir = "") {
  std::vector<char*> args; // made before the fork: the child only calls async-signal-safe functions
  for (const auto& a : argv)
    args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  const pid_t parent = ::getpid();
  const pid_t pid = ::fork();
  if (pid == 0) {
    if (::prctl(PR_SET_PDEATHSIG, SIGTERM) != 0 || ::getppid() != parent)
      ::_exit(125);
    const int fd = ::open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0 || ::dup2(fd, 1) < 0 || ::dup2(fd, 2) < 0 || (!dir.empty() && ::chdir(dir.c_str()) != 0))
      ::_exit(126);
    ::execv(args[0], args.data());
    ::_exit(127);
  }
  return pid;
}

// Ends `pid`, a child of this process, with `signal`, and with SIGKILL once `graceMs` have passed;
// its exit status (-1 unless it exited). A pid <= 0 is left alone.
inline int EndProgram(pid_t pid, int signal = SIGTERM, int graceMs = 2000) {
  int status = -1;
  if (pid <= 0 || ::kill(pid, signal) != 0)
    return -1;
  const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(graceMs);
  while (::waitpid(pid, &status, WNOHANG) == 0)
    if (std::chrono::steady_clock::now() < until)
      ::usleep(10000);
    else if (::kill(pid, SIGKILL) == 0 && ::waitpid(pid, &status, 0) == pid)
      break;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

} // namespace qztest
