// The kvlcv tool's operation table and the helpers every operation shares.
#pragma once

#include <kvlcv.h>

#include <map>
#include <string>
#include <vector>

#include "image_io.h"

namespace kvlcli {

using Args = std::map<std::string, std::string>;

struct Option {
  const char* name;
  const char* help;
  std::vector<const char*> values;  // accepted words; empty: a number
  const char* fallback;             // the default, as text
  bool flag = false;                // takes no value
};

struct RunResult {
  KvlStatus status = kvlStatusOk;
  std::string error;     // a problem found before the library was called
  double seconds = 0.0;  // wall time of the library call
};

struct Operation {
  const char* name;
  const char* summary;
  const char* details;
  std::vector<Option> options;
  RunResult (*run)(const Args& args, const Picture& in, Picture* out);
};

struct StatusInfo {
  const char* name;
  const char* meaning;
};

const std::vector<Operation>& operations();
const Operation* findOperation(const std::string& name);
StatusInfo statusInfo(KvlStatus status);
// Empty when `value` is acceptable for `opt`, else the message.
std::string checkValue(const Option& opt, const std::string& value);
// Runs every operation on the built-in photograph, writes PNGs into `dir`, prints a table.
int demo(const std::string& dir);

}  // namespace kvlcli
