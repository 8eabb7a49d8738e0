// net: blocking TCP over IPv4, one byte per system call, for low-volume control traffic.
//
// A client socket (net::Socket::create) connects to a host and port; a server socket
// (net::ServerSocket::create) listens on a port of all addresses and accepts connections. Both
// are handed out as shared pointers to the interfaces; SocketImpl and ServerSocketImpl are the
// implementations.
//
// Threads: any number of threads may sit in accept() of one server while another closes it;
// accept() looks at the server's closed flag at least once a second (select with a one-second
// timeout), so close() returns within about a second after every pending accept has left with
// "accept interrupted by close". With several accepting threads, one connection wakes every
// select but only one thread gets it: the others wait inside accept() itself until the next
// connection, and close() waits for them too. An accepted socket holds its server alive and
// unregisters from it when it closes; that unregistering takes no lock, so closing an accepted
// socket while another thread accepts on the same server races on the server's list. A socket
// itself has no lock: one thread uses it at a time. Socket::create serialises its host lookup,
// which uses the process's one static result (gethostbyname).
//
// Failures: every failure throws net::SocketException (no standard base class: catch it by its
// own type). Its message is the failing step's text, completed with ": " and the description of
// the current error number except for the "not open" and "interrupted" texts. Kept as built:
//   - a client constructor that fails after creating its socket leaves that descriptor open;
//   - "EOF" is completed with whatever errno holds (read() returning 0 does not set it);
//   - a failing write reports "write filed";
//   - a close() whose shutdown fails (a peer reset leaves shutdown with ENOTCONN) throws and
//     keeps the descriptor; the destructor's close() then ends the process (std::terminate);
//   - after "accept failed" the server still counts that thread as accepting, so a later close()
//     of the server waits for ever.
// Broken internal protocol ("acceptCount > 0", "FD_ISSET(fd1, &readfds)",
// "it->lock().get() == this") is an assertion failure. If closing a descriptor fails after a
// failed bind or listen, a line goes to standard error (error_at_line) before the exception.
// A mutex failure throws std::system_error.
#pragma once

#include <cstddef>
#include <cstdint>
#include <condition_variable>
#include <list>
#include <memory>
#include <mutex>
#include <string>

namespace net {

class SocketImpl;
class ServerSocketImpl;

typedef std::shared_ptr<ServerSocketImpl> ServerSocketImplPtr;

// What every failure of this unit throws.
class SocketException {
 public:
  explicit SocketException(const std::string& message);
  virtual ~SocketException();

  // The failing step's text, completed as described above.
  std::string message;
};

// A connected TCP stream, read and written one byte at a time.
class Socket {
 public:
  typedef std::shared_ptr<Socket> Ptr;

  // One byte, 0 to 255. Throws "EOF: ..." when the peer has closed.
  virtual int read() = 0;
  // Writes the low 8 bits of c as one byte.
  virtual void write(int c) = 0;
  // Shuts the connection down and closes the descriptor; a second call does nothing.
  virtual void close() = 0;
  // Closes (see the unit comment for what happens when that fails).
  virtual ~Socket();

  // Connects to host (name or dotted address) and port; no socket options are set.
  static Ptr create(const std::string& host, int port);
};

// A listening TCP socket on all IPv4 addresses.
class ServerSocket {
 public:
  typedef std::shared_ptr<ServerSocket> Ptr;

  // Closes; an exception out of that ends the process.
  virtual ~ServerSocket();
  // Waits for the next connection. Throws "accept interrupted by close" once close() has begun.
  virtual Socket::Ptr accept() = 0;
  // Makes every pending accept() leave, waits for them, closes the descriptor. For good: a
  // closed server cannot be used again.
  virtual void close() = 0;

  // Binds port (no address reuse) and listens with a backlog of 128.
  static Ptr create(int port);
};

// The server's record of its attached sockets; iterators stay valid while others come and go.
typedef std::list<std::weak_ptr<SocketImpl>> SocketList;

class SocketImpl : public Socket {
 public:
  // Wraps a descriptor returned by accept(); not attached to any server yet.
  explicit SocketImpl(int fd);
  // Connects to host and port (see Socket::create).
  SocketImpl(const std::string& host, int port);
  SocketImpl(const SocketImpl&) = delete;
  SocketImpl& operator=(const SocketImpl&) = delete;

  int read() override;
  void write(int c) override;
  // After the descriptor is closed, an attached socket detaches from its server and drops its
  // reference to it, which may destroy the server.
  void close() override;
  ~SocketImpl() override;

  // Called by the accepting server under its mutex: it must be this socket's own list entry.
  virtual void attachToServerSocket(ServerSocketImplPtr server, SocketList::iterator it);

  // The descriptor, -1 once closed (for polling it or measuring against raw calls).
  int getFd() const { return fd; }
  // The server this socket is attached to, null for client sockets and once closed.
  const ServerSocketImplPtr& getServer() const { return server; }

 private:
  // Set by attachToServerSocket, dropped by close().
  ServerSocketImplPtr server;
  // This socket's entry in server->sockets; meaningful only while server is set.
  SocketList::iterator listIt;
  // -1 when closed or not open.
  int32_t fd;
};

class ServerSocketImpl : public ServerSocket {
 public:
  typedef SocketList::iterator iterator;

  // Listens on port; see ServerSocket::create. Built directly (not through create) it has no
  // self reference, and its accepted sockets do not hold it alive.
  explicit ServerSocketImpl(int port);
  ServerSocketImpl(const ServerSocketImpl&) = delete;
  ServerSocketImpl& operator=(const ServerSocketImpl&) = delete;
  // Closes, then drops the list without touching the sockets.
  ~ServerSocketImpl() override;

  Socket::Ptr accept() override;
  void close() override;

  // Called by an attached socket's close(): forgets the entry. Takes no lock.
  virtual void detach(iterator it);

  // Leaves the accepting count, waking close() when it reaches 0.
  void decrementAcceptCount();

  // Threads currently inside accept().
  int getAcceptCount();
  // Accepted sockets still attached.
  std::size_t getSocketCount();
  // Whether close() has begun.
  bool isClosed();
  // The listening descriptor, -1 once closed.
  int getFd();

 private:
  friend class ServerSocket;  // sets self

  // Appended under mutex by accept(), removed by detach() without it.
  SocketList sockets;
  // Written under mutex; -1 when closed.
  int32_t fd;
  // Set once by ServerSocket::create.
  std::weak_ptr<ServerSocketImpl> self;
  std::mutex mutex;
  // Signalled when acceptCount reaches 0.
  std::condition_variable cond;
  // Written under mutex.
  int32_t acceptCount;
  // Written under mutex; never cleared.
  bool closed;
};

}  // namespace net
