#include "support/parsed_options.h"

namespace corvel::storage::support {

ParsedOptions::ParsedOptions(const boost::program_options::variables_map& options)
    : options_(options) {}

bool ParsedOptions::Has(const char* name) const { return options_.count(name) > 0; }

const std::string& ParsedOptions::Text(const char* name) const {
  return options_[name].as<std::string>();
}

std::string ParsedOptions::TextOr(const char* name, const std::string& fallback) const {
  return Has(name) ? Text(name) : fallback;
}

std::uint64_t ParsedOptions::Number(const char* name) const {
  return options_[name].as<unsigned long>();
}

const Secret& ParsedOptions::SecretText(const char* name) const {
  return *options_[name].as<SharedSecret>();
}

}  // namespace corvel::storage::support
