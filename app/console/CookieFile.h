// Loads the cookie store from a file and saves it.
#pragma once

#include "Command.h"

// Replaces the cookies of the process's store by those of a file, if the file exists. An empty name does nothing.
void LoadCookies(CContext& context, const std::string& file);
// Saves the store to the file. An empty name does nothing.
void SaveCookies(CContext& context, const std::string& file);
