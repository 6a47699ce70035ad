#include "config/config.h"

#include <strings.h>

#include <utility>

namespace corvel::storage::tzconfig {

bool StringCaseCmp::operator()(const std::string& a, const std::string& b) const {
  return strcasecmp(a.c_str(), b.c_str()) < 0;
}

SectionOptionMap* TZConfig::GetOptionMap(const std::string& section) {
  if (last_ != sections_.end() && last_->first == section) return last_->second.get();
  const auto place = sections_.lower_bound(section);
  if (place != sections_.end() && !sections_.key_comp()(section, place->first)) {
    last_ = place;
    return place->second.get();
  }
  // The order grows first: when the map then cannot, the place is taken back.
  sectionOrder_.emplace_back();
  try {
    last_ = sections_.emplace_hint(place, section, std::make_unique<SectionOptionMap>());
  } catch (...) {
    sectionOrder_.pop_back();
    throw;
  }
  sectionOrder_.back() = last_->first;
  return last_->second.get();
}

OptionValue* TZConfig::OptionEntry(const std::string& section, std::string option,
                                   std::int32_t* result) {
  *result = kBadArgument;
  if (section.empty() || option.empty()) return nullptr;
  *result = kSectionUnavailable;
  SectionOptionMap* const map = GetOptionMap(section);
  if (map == nullptr) return nullptr;
  *result = kSuccess;
  return &map->options[std::move(option)];
}

std::int32_t TZConfig::SetOptionValue(const std::string& section, std::string option,
                                      std::string value) {
  std::int32_t result = kSuccess;
  OptionValue* const entry = OptionEntry(section, std::move(option), &result);
  if (entry != nullptr) entry->value = std::move(value);
  return result;
}

std::int32_t TZConfig::SetOptionValue(const std::string& section, std::string option,
                                      std::string value, std::string comment) {
  std::int32_t result = kSuccess;
  OptionValue* const entry = OptionEntry(section, std::move(option), &result);
  if (entry == nullptr) return result;
  entry->value = std::move(value);
  entry->comment = std::move(comment);
  return kSuccess;
}

std::int32_t TZConfig::GetOptionValue(const std::string& section, const std::string& option,
                                      std::string* value, std::string* comment) {
  if (section.empty() || option.empty() || value == nullptr || comment == nullptr) {
    return kBadArgument;
  }
  const SectionOptionMap* const map = GetOptionMap(section);
  if (map == nullptr) return kSectionUnavailable;
  const auto entry = map->options.find(option);
  if (entry == map->options.end()) return kOptionMissing;
  *value = entry->second.value;
  *comment = entry->second.comment;
  return kSuccess;
}

void TZConfig::Reset() {
  sectionOrder_.clear();
  sections_.clear();
  last_ = sections_.end();
}

}  // namespace corvel::storage::tzconfig
