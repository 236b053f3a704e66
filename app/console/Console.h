// The console: one command line in, one exit code out.
#pragma once

#include "Command.h"

#include <span>
#include <string>
#include <vector>

// Runs one command line (UTF-8, without the program's name) on the given streams and returns the exit code. Failures are
// written to the error stream. The commands of a batch run with it, too.
[[nodiscard]] int RunConsole(const std::vector<std::string>& arguments, CStreams streams, CProcessState& process) noexcept;

// The families of commands. Each is in a file of its own.
[[nodiscard]] std::span<const CCommandEntry> EncodingCommands();  // encode, decode
[[nodiscard]] std::span<const CCommandEntry> ParameterCommands(); // params ...
[[nodiscard]] std::span<const CCommandEntry> SignatureCommands(); // hash, key ..., sign, verify
[[nodiscard]] std::span<const CCommandEntry> IniCommands();       // ini ...
[[nodiscard]] std::span<const CCommandEntry> SystemCommands();    // time ..., error, log ..., system
[[nodiscard]] std::span<const CCommandEntry> WmiCommands();       // wmi
[[nodiscard]] std::span<const CCommandEntry> AddressCommands();   // address, resolve, proxy, cookies
[[nodiscard]] std::span<const CCommandEntry> RequestCommands();   // send, get
[[nodiscard]] std::span<const CCommandEntry> DoctorCommands();    // doctor
[[nodiscard]] std::span<const CCommandEntry> DemoCommands();      // demo
[[nodiscard]] std::span<const CCommandEntry> BatchCommands();     // batch
