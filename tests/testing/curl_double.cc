#include "tests/testing/curl_double.h"

#include <dlfcn.h>
#include <strings.h>

#include <cstdarg>
#include <stdexcept>

// The header wraps the functions that take any kind of value in macros.
#undef curl_easy_setopt
#undef curl_easy_getinfo

namespace corvel::storage::testing {
namespace {

CurlDouble* active = nullptr;

CurlDouble& Active() {
  if (active == nullptr) throw std::logic_error("a transfer outside of a CurlDouble");
  return *active;
}

std::string ListText(const curl_slist* list) {
  std::string text;
  for (; list != nullptr; list = list->next) {
    text.append(text.empty() ? "" : "|").append(list->data);
  }
  return text;
}

std::string PointerText(curl_easytype type, const void* value) {
  if (value == nullptr) return "(null)";
  if (type == CURLOT_STRING) return static_cast<const char*>(value);
  if (type == CURLOT_SLIST) return ListText(static_cast<const curl_slist*>(value));
  return "(set)";
}

bool IsNumber(curl_easytype type) {
  return type == CURLOT_LONG || type == CURLOT_VALUES || type == CURLOT_OFF_T;
}

/// libcurl's own function, which the one below hides.
auto* RealSetopt() {
  return reinterpret_cast<decltype(&curl_easy_setopt)>(dlsym(RTLD_NEXT, "curl_easy_setopt"));
}

/// Notes that `option` was set to `text`; false when it is to be refused.
bool Record(const curl_easyoption& option, const std::string& text) {
  active->options.push_back(std::string(option.name) + "=" + text);
  return active->refusedOption != option.name;
}

CURLcode SetNumber(CURL* handle, const curl_easyoption& option, curl_off_t value) {
  if (active != nullptr && !Record(option, std::to_string(value))) return active->refusal;
  if (option.type == CURLOT_OFF_T) return RealSetopt()(handle, option.id, value);
  return RealSetopt()(handle, option.id, static_cast<long>(value));
}

CURLcode SetPointer(CURL* handle, const curl_easyoption& option, void* value) {
  if (active != nullptr) {
    active->pointers[option.name] = value;
    if (!Record(option, PointerText(option.type, value))) return active->refusal;
  }
  return RealSetopt()(handle, option.id, value);
}

std::string RequestBody(const CurlDouble& transfer) {
  const auto body = transfer.pointers.find("POSTFIELDS");
  if (body == transfer.pointers.end()) return "";
  const std::string size = transfer.Option("POSTFIELDSIZE_LARGE");
  return std::string(static_cast<const char*>(body->second), std::stoul(size));
}

/// Hands the reply's parts to the transfer's write function.
bool Deliver(CurlDouble* transfer) {
  const auto write = reinterpret_cast<curl_write_callback>(transfer->pointers.at("WRITEFUNCTION"));
  void* const target = transfer->pointers.at("WRITEDATA");
  for (std::string& part : transfer->parts) {
    if (write(part.data(), 1, part.size(), target) != part.size()) return false;
  }
  return true;
}

}  // namespace

CurlDouble::CurlDouble() { active = this; }

CurlDouble::~CurlDouble() { active = nullptr; }

std::string CurlDouble::Option(const std::string& name) const {
  for (auto option = options.rbegin(); option != options.rend(); ++option) {
    if (option->rfind(name + "=", 0) == 0) return option->substr(name.size() + 1);
  }
  return "(unset)";
}

}  // namespace corvel::storage::testing

namespace testing_ns = corvel::storage::testing;

CURLcode curl_global_init(long flags) {
  if (testing_ns::active != nullptr && testing_ns::active->startResult != CURLE_OK) {
    return testing_ns::active->startResult;
  }
  return reinterpret_cast<decltype(&curl_global_init)>(dlsym(RTLD_NEXT, "curl_global_init"))(flags);
}

CURL* curl_easy_init() {
  if (testing_ns::active != nullptr && !testing_ns::active->hasHandles) return nullptr;
  return reinterpret_cast<decltype(&curl_easy_init)>(dlsym(RTLD_NEXT, "curl_easy_init"))();
}

// The last named parameter of the two functions below is an enumeration, as
// libcurl has declared it; it has the size of a number, so nothing is promoted.
#pragma GCC diagnostic ignored "-Wvarargs"

CURLcode curl_easy_setopt(CURL* handle, CURLoption id, ...) {
  const curl_easyoption* const option = curl_easy_option_by_id(id);
  std::va_list values;
  va_start(values, id);
  CURLcode result = CURLE_UNKNOWN_OPTION;
  if (option->type == CURLOT_OFF_T) {
    result = testing_ns::SetNumber(handle, *option, va_arg(values, curl_off_t));
  } else if (testing_ns::IsNumber(option->type)) {
    result = testing_ns::SetNumber(handle, *option, va_arg(values, long));
  } else {
    result = testing_ns::SetPointer(handle, *option, va_arg(values, void*));
  }
  va_end(values);
  return result;
}

CURLcode curl_easy_perform(CURL* /*handle*/) {
  testing_ns::CurlDouble& transfer = testing_ns::Active();
  transfer.bodies.push_back(testing_ns::RequestBody(transfer));
  if (!testing_ns::Deliver(&transfer)) return CURLE_WRITE_ERROR;
  return transfer.performResult;
}

CURLcode curl_easy_getinfo(CURL* /*handle*/, CURLINFO info, ...) {
  if (info != CURLINFO_RESPONSE_CODE) return CURLE_UNKNOWN_OPTION;
  std::va_list values;
  va_start(values, info);
  *va_arg(values, long*) = testing_ns::Active().httpStatus;
  va_end(values);
  return testing_ns::Active().infoResult;
}

CURLHcode curl_easy_header(CURL* /*handle*/, const char* name, std::size_t index, unsigned origin,
                           int /*request*/, curl_header** result) {
  static curl_header found;
  std::vector<std::string>& values = testing_ns::Active().statusHeaders;
  const bool asked = strcasecmp(name, "X-Quorvex-Status") == 0 && origin == CURLH_HEADER;
  if (!asked || values.empty()) return CURLHE_MISSING;
  if (index >= values.size()) return CURLHE_BADINDEX;
  static std::string foundName;
  foundName = name;
  found = {foundName.data(), values[index].data(), values.size(), index, origin, nullptr};
  *result = &found;
  return CURLHE_OK;
}
