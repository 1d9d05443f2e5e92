// What the client and the server's network side share of the network library: its headers and the short
// names both files use for it. Private to the HTTP library.
#pragma once

#include <chrono>

#include <boost/asio/strand.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>

namespace Kitra::Http::Net {

namespace beast = boost::beast;
namespace bhttp = beast::http;
namespace net = boost::asio;
namespace ssl = net::ssl;
using tcp = net::ip::tcp;
using Clock = std::chrono::steady_clock;

}  // namespace Kitra::Http::Net
