#ifndef SUPPORT_CURL_HANDLE_H_
#define SUPPORT_CURL_HANDLE_H_

#include <curl/curl.h>

#include "support/handle.h"

namespace corvel::storage::support {

// Owned libcurl handles; null stands for "could not be made".

using CurlEasyPtr = std::unique_ptr<CURL, HandleDeleter<curl_easy_cleanup>>;
using CurlMultiPtr = std::unique_ptr<CURLM, HandleDeleter<curl_multi_cleanup>>;
using CurlSharePtr = std::unique_ptr<CURLSH, HandleDeleter<curl_share_cleanup>>;
using CurlUrlPtr = std::unique_ptr<CURLU, HandleDeleter<curl_url_cleanup>>;
using CurlListPtr = std::unique_ptr<curl_slist, HandleDeleter<curl_slist_free_all>>;
/// A text that libcurl allocated.
using CurlTextPtr = std::unique_ptr<char, HandleDeleter<curl_free>>;

}  // namespace corvel::storage::support

#endif  // SUPPORT_CURL_HANDLE_H_
