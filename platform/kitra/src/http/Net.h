// What the client and the server's network side share of the network library: its headers, the short names
// both files use for it and the stream under their connections. Private to the HTTP library.
#pragma once

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <string>

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

// A connection's TCP stream. Its asynchronous operations are those of the event loop's stream, with that
// stream's deadline. Its synchronous ones run on the calling thread: a client's call writes and reads on its
// own thread (through TLS as well), waiting in poll until `deadline` at most; with `spill` set, a write never
// waits: what the socket does not take at once goes to *spill, for the caller to send asynchronously.
class Stream {
public:
    using executor_type = beast::tcp_stream::executor_type;
    using lowest_layer_type = tcp::socket;

    explicit Stream(const executor_type& executor) : tcp_(executor) {}
    explicit Stream(tcp::socket&& socket) : tcp_(std::move(socket)) {}
    ~Stream() { Close(); }
    Stream(const Stream&) = delete;
    Stream& operator=(const Stream&) = delete;

    // Takes the socket off the event loop, for synchronous use only: the loop is then not woken by what
    // arrives for it. Attach puts it back before asynchronous use.
    void Detach() {
        if (detached_ >= 0 || !tcp_.socket().is_open()) return;
        beast::error_code ec;
        protocol_ = tcp_.socket().local_endpoint(ec).protocol();
        if (!ec) detached_ = tcp_.socket().release(ec);
        if (ec) detached_ = -1;
    }
    void Attach() {
        if (detached_ < 0) return;
        beast::error_code ec;
        tcp_.socket().assign(protocol_, detached_, ec);
        if (ec) ::close(detached_);  // the call on it then fails as on a closed connection
        detached_ = -1;
    }
    void Close() {
        if (detached_ >= 0) {
            ::shutdown(detached_, SHUT_RDWR);
            ::close(detached_);
            detached_ = -1;
            return;
        }
        beast::error_code ignored;
        tcp_.socket().shutdown(tcp::socket::shutdown_both, ignored);
        tcp_.close();
    }

    beast::tcp_stream& Tcp() { return tcp_; }
    executor_type get_executor() { return tcp_.get_executor(); }
    tcp::socket& lowest_layer() { return tcp_.socket(); }
    const tcp::socket& lowest_layer() const { return tcp_.socket(); }

    beast::tcp_stream& next_layer() { return tcp_; }

    Clock::time_point deadline;
    std::string* spill = nullptr;

    template <class Buffers, class Token>
    auto async_read_some(const Buffers& buffers, Token&& token) {
        return tcp_.async_read_some(buffers, std::forward<Token>(token));
    }
    template <class Buffers, class Token>
    auto async_write_some(const Buffers& buffers, Token&& token) {
        return tcp_.async_write_some(buffers, std::forward<Token>(token));
    }

    template <class Buffers>
    size_t read_some(const Buffers& buffers, beast::error_code& ec) {
        ec = {};
        net::mutable_buffer first = beast::buffers_front(buffers);
        if (first.size() == 0) return 0;
        for (;;) {
            ssize_t n = ::recv(Fd(), first.data(), first.size(), MSG_DONTWAIT);
            if (n > 0) return static_cast<size_t>(n);
            if (n == 0) {
                ec = net::error::eof;
                return 0;
            }
            if (!Retry(POLLIN, ec)) return 0;
        }
    }
    template <class Buffers>
    size_t write_some(const Buffers& buffers, beast::error_code& ec) {
        ec = {};
        iovec parts[16];
        size_t count = 0;
        for (auto it = net::buffer_sequence_begin(buffers); it != net::buffer_sequence_end(buffers) && count < 16; ++it) {
            net::const_buffer b(*it);
            if (b.size() == 0) continue;
            parts[count].iov_base = const_cast<void*>(b.data());
            parts[count].iov_len = b.size();
            ++count;
        }
        if (count == 0) return 0;
        if (spill && !spill->empty()) {  // behind what waits already
            size_t total = 0;
            for (size_t i = 0; i < count; ++i) {
                spill->append(static_cast<const char*>(parts[i].iov_base), parts[i].iov_len);
                total += parts[i].iov_len;
            }
            return total;
        }
        msghdr message{};
        message.msg_iov = parts;
        message.msg_iovlen = count;
        for (;;) {
            ssize_t n = ::sendmsg(Fd(), &message, MSG_DONTWAIT | MSG_NOSIGNAL);
            if (n < 0 && spill && (errno == EAGAIN || errno == EWOULDBLOCK)) n = 0;
            if (n >= 0 && spill) {
                // Keeps what was not sent; the whole is reported written.
                size_t skip = static_cast<size_t>(n), total = 0;
                for (size_t i = 0; i < count; ++i) {
                    total += parts[i].iov_len;
                    size_t drop = std::min(skip, parts[i].iov_len);
                    spill->append(static_cast<const char*>(parts[i].iov_base) + drop, parts[i].iov_len - drop);
                    skip -= drop;
                }
                return total;
            }
            if (n >= 0) return static_cast<size_t>(n);
            if (!Retry(POLLOUT, ec)) return 0;
        }
    }
    template <class Buffers>
    size_t read_some(const Buffers& buffers) {
        beast::error_code ec;
        size_t n = read_some(buffers, ec);
        if (ec) throw boost::system::system_error(ec);
        return n;
    }
    template <class Buffers>
    size_t write_some(const Buffers& buffers) {
        beast::error_code ec;
        size_t n = write_some(buffers, ec);
        if (ec) throw boost::system::system_error(ec);
        return n;
    }

private:
    // After a failed system call: true when it may be tried again (interrupted, or the socket became ready
    // for `events` before the deadline), else false with `ec` set.
    bool Retry(short events, beast::error_code& ec) {
        int error = errno;
        if (error == EINTR) return true;
        if (error != EAGAIN && error != EWOULDBLOCK) {
            ec.assign(error, beast::system_category());
            return false;
        }
        for (;;) {
            auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
            if (left <= 0) {
                ec = beast::error::timeout;
                return false;
            }
            pollfd wait{Fd(), events, 0};
            int ready = ::poll(&wait, 1, static_cast<int>(std::min<long long>(left, INT_MAX)));
            if (ready > 0) return true;
            if (ready < 0 && errno != EINTR) {
                ec.assign(errno, beast::system_category());
                return false;
            }
        }
    }

    int Fd() { return detached_ >= 0 ? detached_ : tcp_.socket().native_handle(); }

    beast::tcp_stream tcp_;
    int detached_ = -1;
    tcp protocol_ = tcp::v4();
};

}  // namespace Kitra::Http::Net
