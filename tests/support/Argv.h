// Arguments of a program as execv wants them; valid as long as the strings.
#pragma once

#include <string>
#include <vector>

inline std::vector<char*> ArgvOf(const std::vector<std::string>& args) {
  std::vector<char*> argv;
  for (const auto& str : args)
    argv.push_back(const_cast<char*>(str.c_str()));
  argv.push_back(nullptr);
  return argv;
}
