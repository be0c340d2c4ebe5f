// What larkpostctl's commands share: their words, their mistakes, and the
// data root that they may rely on.
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

namespace larkpost::tools {

// The words after a command's name.
using Args = std::vector<std::string>;

// A mistake in the command line: reported with the usage, exit status 1.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Takes the value of option `name` at args[i] (as "--name V" or
// "--name=V"); true when args[i] was that option. Throws UsageError when
// the value is missing.
bool TakeOption(const Args& args, size_t& i, const std::string& name, std::string* value);

// Creates the folders below the data root that every command may rely on.
// Throws std::runtime_error when one cannot be made.
void PrepareDataRoot();

}  // namespace larkpost::tools
