// systemd's services that stand for launch jobs.
#pragma once

#include <sys/types.h>
#include <unistd.h>

#include <string>
#include <vector>

/// The name of the service that stands for job `label`: a prefix that nothing else has, and the
/// label as systemd-escape(1) writes it, so that two labels never share a name. Empty when there is
/// no such name: for an empty label, and for one that is too long for systemd.
std::string JobUnitName(const std::string& label);

/// The service of a launch job. Its program gets /dev/null as standard input, and the journal as
/// standard error.
struct JobUnit {
  /// As JobUnitName() returns it.
  std::string name;
  /// The absolute path of the program.
  std::string executable;
  /// The program's arguments, the first of which it takes as its own name; not empty.
  std::vector<std::string> arguments;
  /// The standard output, an open descriptor that is closed with the object; -1 for /dev/null.
  int output = -1;

  JobUnit() = default;
  ~JobUnit() {
    if (output >= 0) {
      close(output);
    }
  }
  JobUnit(const JobUnit&) = delete;
  JobUnit& operator=(const JobUnit&) = delete;
};

/// Submits the service to systemd, which starts it, and which knows it until it is removed, also
/// after its program has ended. If `mayInteract`, polkit may ask the user for a password, and the
/// call waits for that. Returns a negative errno on failure.
int StartJobUnit(const JobUnit& job, bool mayInteract);

/// Stops the service `name` and waits until systemd has forgotten it, for at most 80 seconds.
/// `mayInteract` is as above. Returns a negative errno on failure, -ETIMEDOUT after that time.
int RemoveJobUnit(const std::string& name, bool mayInteract);

/// The path that systemd executed as the main process of a launch job, if `pid` is one whose
/// program is running; else empty. systemd reports it to every user. Empty for a script, too: what
/// runs is its interpreter. The bus is only asked about processes in a launch job's control group,
/// since this is called for every process of other users again and again.
std::string JobExecutable(pid_t pid);
