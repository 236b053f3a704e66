// The cookie store in a file of the user's.
#pragma once

#include "Command.h"

// Loads the process's cookie store from a file, if that exists; what the store held is replaced. An empty name does nothing.
void LoadCookies(CContext& context, const std::string& file);
// Saves the store to the file. An empty name does nothing.
void SaveCookies(CContext& context, const std::string& file);
