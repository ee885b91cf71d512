// Small file-system helpers for the simulation root.
#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

namespace qzsim {

std::vector<std::string> listDir(const std::string& dir);  // names, "." and ".." left out
bool readFile(const std::string& path, std::string* text);
bool writeFile(const std::string& path, const std::string& text, mode_t mode = 0644);
bool makeDirs(const std::string& path);
void removeTree(const std::string& path);
bool copySparse(const std::string& from, const std::string& to);

}  // namespace qzsim
