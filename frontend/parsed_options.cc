#include "frontend/parsed_options.h"

#include <boost/any.hpp>

#include "support/secret.h"

namespace corvel::storage::tzregister {

namespace po = boost::program_options;

ParsedOptions::ParsedOptions(const po::variables_map& options) : options_(options) {}

ParsedOptions::~ParsedOptions() {
  const auto passwd = options_.find("passwd");
  if (passwd == options_.end()) return;
  if (auto* text = boost::any_cast<std::string>(&passwd->second.value())) support::WipeText(text);
}

bool ParsedOptions::Has(const std::string& name) const { return options_.count(name) > 0; }

const std::string& ParsedOptions::Text(const std::string& name) const {
  return options_[name].as<std::string>();
}

std::string ParsedOptions::TextOr(const std::string& name, const std::string& fallback) const {
  return Has(name) ? Text(name) : fallback;
}

std::uint64_t ParsedOptions::Number(const std::string& name) const {
  return options_[name].as<unsigned long>();
}

}  // namespace corvel::storage::tzregister
