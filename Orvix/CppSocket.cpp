#include "Orvix/CppSocket.hpp"

#include <errno.h>
#include <error.h>
#include <netdb.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include "Orvix/OrvixAssert.hpp"

namespace net {
namespace {

constexpr const char* kUnit = "Orvix/CppSocket";

// text + ": " + the description of err.
[[noreturn]] void throwWithError(const char* text, int err) {
  char buffer[256];
  throw SocketException(std::string(text) + ": " + strerror_r(err, buffer, sizeof buffer));
}

[[noreturn]] void throwWithErrno(const char* text) { throwWithError(text, errno); }

// gethostbyname fills one static result per process; lookups and the copy out of it take turns.
std::mutex gl_hostLookupMutex;

sockaddr_in ipv4Address(uint32_t networkAddress, int port) {
  sockaddr_in address;
  memset(&address, 0, sizeof address);
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = networkAddress;
  return address;
}

// Closes a descriptor the constructor gives up; a failure there is only reported, since the
// caller learns of the original error by the exception that follows.
void closeAfterError(int fd, int line, const char* what) {
  if (::close(fd) != 0) error_at_line(0, errno, kUnit, line, "%s", what);
}

}  // namespace

SocketException::SocketException(const std::string& message) : message(message) {}

SocketException::~SocketException() = default;

Socket::~Socket() = default;

Socket::Ptr Socket::create(const std::string& host, int port) {
  return std::make_shared<SocketImpl>(host, port);
}

ServerSocket::~ServerSocket() = default;

ServerSocket::Ptr ServerSocket::create(int port) {
  auto server = std::make_shared<ServerSocketImpl>(port);
  server->self = server;
  return server;
}

// ---- SocketImpl ----------------------------------------------------------------------------

SocketImpl::SocketImpl(int fd) : server(), listIt(), fd(fd) {}

SocketImpl::SocketImpl(const std::string& host, int port) : server(), listIt(), fd(-1) {
  fd = ::socket(AF_INET, SOCK_STREAM, 0);
  if (fd < 0) throwWithErrno("socket failed");
  // On the failures below the descriptor stays open: callers have always seen it so.
  sockaddr_in address = ipv4Address(0, port);
  {
    std::lock_guard<std::mutex> lookup(gl_hostLookupMutex);
    const hostent* entry = ::gethostbyname(host.c_str());
    if (entry == nullptr) throwWithErrno("gethostbyname failed");
    memcpy(&address.sin_addr, entry->h_addr_list[0], static_cast<std::size_t>(entry->h_length));
  }
  if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) < 0)
    throwWithErrno("connect failed");
}

SocketImpl::~SocketImpl() { close(); }

int SocketImpl::read() {
  if (fd == -1) throw SocketException("read when socket is not open");
  unsigned char byte;
  const ssize_t result = ::read(fd, &byte, 1);
  if (result == 0) throwWithErrno("EOF");
  if (result == -1) throwWithErrno("read failed");
  return byte;
}

void SocketImpl::write(int c) {
  if (fd == -1) throw SocketException("write when socket is not open");
  const unsigned char byte = static_cast<unsigned char>(c & 0xFF);
  if (::write(fd, &byte, 1) != 1) throwWithErrno("write filed");
}

void SocketImpl::close() {
  if (fd == -1) return;
  if (::shutdown(fd, SHUT_RDWR) != 0) throwWithErrno("shutdown failed");
  if (::close(fd) != 0) throwWithErrno("close failed");
  fd = -1;
  if (server) {
    server->detach(listIt);
    server.reset();  // may be the server's last reference
  }
}

void SocketImpl::attachToServerSocket(ServerSocketImplPtr server, SocketList::iterator it) {
  ORVIX_ASSERT(it->lock().get() == this, "it->lock().get() == this", kUnit, 356);
  this->server = std::move(server);
  listIt = it;
}

// ---- ServerSocketImpl ----------------------------------------------------------------------

ServerSocketImpl::ServerSocketImpl(int port)
    : sockets(), fd(-1), self(), mutex(), cond(), acceptCount(0), closed(false) {
  fd = ::socket(AF_INET, SOCK_STREAM, 0);
  if (fd == -1) throwWithErrno("socket failed");
  const sockaddr_in address = ipv4Address(htonl(INADDR_ANY), port);
  if (::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    const int bindError = errno;
    closeAfterError(fd, 210, "close after bind error failed");
    throwWithError("bind failed", bindError);
  }
  if (::listen(fd, 128) != 0) {
    const int listenError = errno;
    closeAfterError(fd, 219, "close after listen error failed");
    throwWithError("listen failed", listenError);
  }
}

ServerSocketImpl::~ServerSocketImpl() { close(); }

void ServerSocketImpl::decrementAcceptCount() {
  std::lock_guard<std::mutex> lock(mutex);
  ORVIX_ASSERT(acceptCount > 0, "acceptCount > 0", kUnit, 227);
  if (--acceptCount == 0) cond.notify_all();
}

Socket::Ptr ServerSocketImpl::accept() {
  int fd1;
  {
    std::lock_guard<std::mutex> lock(mutex);
    if (fd == -1) throw SocketException("accept when server socket is not open!");
    fd1 = fd;
    ++acceptCount;
  }
  fd_set readfds;
  for (;;) {
    bool isClosed;
    {
      std::lock_guard<std::mutex> lock(mutex);
      isClosed = closed;
    }
    if (isClosed) {
      decrementAcceptCount();
      throw SocketException("accept interrupted by close");
    }
    FD_ZERO(&readfds);
    FD_SET(fd1, &readfds);
    timeval timeout;
    timeout.tv_sec = 1;
    timeout.tv_usec = 0;
    const int ready = ::select(fd1 + 1, &readfds, nullptr, nullptr, &timeout);
    if (ready == -1) {
      const int selectError = errno;
      decrementAcceptCount();
      throwWithError("select in accept failed", selectError);
    }
    if (ready == 1) break;
  }
  ORVIX_ASSERT(FD_ISSET(fd1, &readfds), "FD_ISSET(fd1, &readfds)", kUnit, 266);

  sockaddr_in peer;
  socklen_t peerLength = sizeof peer;
  const int newFd = ::accept(fd1, reinterpret_cast<sockaddr*>(&peer), &peerLength);
  // This thread stays counted as accepting: a later close() then waits for ever. Kept as built.
  if (newFd < 0) throwWithErrno("accept failed");

  auto socket = std::make_shared<SocketImpl>(newFd);
  {
    std::lock_guard<std::mutex> lock(mutex);
    sockets.push_back(socket);
    ServerSocketImplPtr serverPtr = self.lock();
    socket->attachToServerSocket(std::move(serverPtr), std::prev(sockets.end()));
  }
  decrementAcceptCount();
  return socket;
}

void ServerSocketImpl::close() {
  std::unique_lock<std::mutex> lock(mutex);
  closed = true;
  if (acceptCount >= 1) cond.wait(lock, [this] { return acceptCount <= 0; });
  if (fd != -1) {
    if (::close(fd) != 0) throwWithErrno("close failed");
    fd = -1;
  }
}

void ServerSocketImpl::detach(iterator it) { sockets.erase(it); }

int ServerSocketImpl::getAcceptCount() {
  std::lock_guard<std::mutex> lock(mutex);
  return acceptCount;
}

std::size_t ServerSocketImpl::getSocketCount() {
  std::lock_guard<std::mutex> lock(mutex);
  return sockets.size();
}

bool ServerSocketImpl::isClosed() {
  std::lock_guard<std::mutex> lock(mutex);
  return closed;
}

int ServerSocketImpl::getFd() {
  std::lock_guard<std::mutex> lock(mutex);
  return fd;
}

}  // namespace net
