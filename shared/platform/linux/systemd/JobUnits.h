// systemd's services that stand for launch jobs.
#pragma once

#include <sys/types.h>

#include <string>

/// systemd's manager on the bus: org.freedesktop.systemd1(5).
constexpr char kSystemdService[] = "org.freedesktop.systemd1";
constexpr char kSystemdObject[] = "/org/freedesktop/systemd1";
constexpr char kSystemdManager[] = "org.freedesktop.systemd1.Manager";
constexpr char kUnitInterface[] = "org.freedesktop.systemd1.Unit";

/// The name of the service that stands for job `label`: a prefix that nothing else has, and the
/// label as systemd-escape(1) writes it, so that two labels never share a name. Empty when there is
/// no such name: for an empty label, and for one that is too long for systemd.
std::string JobUnitName(const std::string& label);

/// The path that systemd executed as the main process of a launch job, if `pid` is one whose
/// program is running; else empty. systemd reports it to every user. Empty for a script, too: what
/// runs is its interpreter. The bus is only asked about processes in a launch job's control group,
/// since this is called for every process of other users again and again.
std::string JobExecutable(pid_t pid);
