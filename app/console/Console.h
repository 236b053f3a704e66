// The console: one command line in, one exit code out.
#pragma once

#include "Command.h"

#include <span>
#include <string>
#include <vector>

// Runs one command line (without the program's name; UTF-8) on the given streams. Never throws: whatever goes wrong is told on
// the error stream. Commands of a batch come through here as well.
[[nodiscard]] int RunConsole(const std::vector<std::string>& arguments, CStreams streams, CProcessState& process) noexcept;

// The command families, a file each.
[[nodiscard]] std::span<const CCommandEntry> EncodingCommands();  // encode, decode
[[nodiscard]] std::span<const CCommandEntry> ParameterCommands(); // params ...
[[nodiscard]] std::span<const CCommandEntry> SignatureCommands(); // hash, key ..., sign, verify
[[nodiscard]] std::span<const CCommandEntry> IniCommands();       // ini ...
[[nodiscard]] std::span<const CCommandEntry> SystemCommands();    // time ..., error, log ..., system
[[nodiscard]] std::span<const CCommandEntry> WmiCommands();       // wmi
[[nodiscard]] std::span<const CCommandEntry> AddressCommands();   // address, resolve, proxy, cookies
[[nodiscard]] std::span<const CCommandEntry> RequestCommands();   // send, get
[[nodiscard]] std::span<const CCommandEntry> DemoCommands();      // demo
[[nodiscard]] std::span<const CCommandEntry> BatchCommands();     // batch
