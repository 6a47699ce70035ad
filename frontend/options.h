#ifndef FRONTEND_OPTIONS_H_
#define FRONTEND_OPTIONS_H_

#include <boost/program_options/options_description.hpp>
#include <boost/program_options/variables_map.hpp>

namespace corvel::storage::tzregister {

/// The tool's options under the caption "Usage", in the order of the help text.
boost::program_options::options_description DescribeOptions();

/// Parses a command line (`argv[0]` is the program's name) by `description`
/// into `*options`. Throws the option library's exceptions, which derive from
/// std::exception, for unknown or repeated options and for values that are
/// missing or of the wrong kind. The library's own ways hold: a long name may be
/// cut short, words that belong to no option are passed over, and a number with
/// a minus sign wraps around.
void ParseOptions(int argc, const char* const* argv,
                  const boost::program_options::options_description& description,
                  boost::program_options::variables_map* options);

}  // namespace corvel::storage::tzregister

#endif  // FRONTEND_OPTIONS_H_
