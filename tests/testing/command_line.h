#ifndef TESTS_TESTING_COMMAND_LINE_H_
#define TESTS_TESTING_COMMAND_LINE_H_

#include <boost/program_options/variables_map.hpp>
#include <string>
#include <vector>

#include "frontend/options.h"
#include "tests/testing/words.h"

namespace corvel::storage::testing {

/// The options that the command line `arguments` (program name left out) gives.
inline boost::program_options::variables_map Options(const Words& arguments) {
  std::vector<const char*> argv = {"tzregister"};
  for (const std::string& argument : arguments) argv.push_back(argument.c_str());
  boost::program_options::variables_map options;
  tzregister::ParseOptions(static_cast<int>(argv.size()), argv.data(),
                           tzregister::DescribeOptions(), &options);
  return options;
}

}  // namespace corvel::storage::testing

#endif  // TESTS_TESTING_COMMAND_LINE_H_
