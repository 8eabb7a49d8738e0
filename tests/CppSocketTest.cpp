#include "Orvix/CppSocket.hpp"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <iostream>
#include <random>
#include <thread>
#include <type_traits>
#include <vector>

#include "TestSupport.hpp"

using net::ServerSocket;
using net::ServerSocketImpl;
using net::Socket;
using net::SocketException;
using net::SocketImpl;
using orvix_test::CaptureFd;
using orvix_test::ChildResult;
using orvix_test::errorText;
using orvix_test::expectAssertion;
using orvix_test::nextSymbol;
using orvix_test::runInChild;
using orvix_test::takeArmed;

// ---- interposed system calls ---------------------------------------------------------------
// Each armed value is an error number: the next call fails once with it.

namespace {
int failSocket = 0;
int failGethostbyname = 0;
int failListen = 0;
int failClose = 0;
int unclosedFd = -1;  // the descriptor a failed close left open
int failSelect = 0;
int selectFindsNothing = 0;  // the next select reports one ready descriptor but sets none
int selectFindsReady = 0;    // the next select reports the descriptor ready without waiting
int failAccept = 0;

// Reads before it writes: unarmed calls from many threads (the stress test) only read.
int takeIfArmed(int& armed) { return armed != 0 ? takeArmed(armed) : 0; }
}  // namespace

extern "C" int socket(int domain, int type, int protocol) {
  static auto real = nextSymbol<int (*)(int, int, int)>("socket");
  if (const int err = takeIfArmed(failSocket)) {
    errno = err;
    return -1;
  }
  return real(domain, type, protocol);
}

extern "C" struct hostent* gethostbyname(const char* name) {
  static auto real = nextSymbol<struct hostent* (*)(const char*)>("gethostbyname");
  if (const int err = takeIfArmed(failGethostbyname)) {
    errno = err;
    return nullptr;
  }
  return real(name);
}

extern "C" int listen(int fd, int backlog) {
  static auto real = nextSymbol<int (*)(int, int)>("listen");
  if (const int err = takeIfArmed(failListen)) {
    errno = err;
    return -1;
  }
  return real(fd, backlog);
}

extern "C" int close(int fd) {
  static auto real = nextSymbol<int (*)(int)>("close");
  if (const int err = takeIfArmed(failClose)) {
    unclosedFd = fd;
    errno = err;
    return -1;
  }
  return real(fd);
}

extern "C" int select(int n, fd_set* readfds, fd_set* writefds, fd_set* exceptfds,
                      struct timeval* timeout) {
  static auto real =
      nextSymbol<int (*)(int, fd_set*, fd_set*, fd_set*, struct timeval*)>("select");
  if (const int err = takeIfArmed(failSelect)) {
    errno = err;
    return -1;
  }
  if (takeIfArmed(selectFindsNothing)) {
    FD_ZERO(readfds);
    return 1;
  }
  if (takeIfArmed(selectFindsReady)) return 1;  // readfds holds just the one descriptor
  return real(n, readfds, writefds, exceptfds, timeout);
}

extern "C" int accept(int fd, struct sockaddr* address, socklen_t* length) {
  static auto real = nextSymbol<int (*)(int, struct sockaddr*, socklen_t*)>("accept");
  if (const int err = takeIfArmed(failAccept)) {
    errno = err;
    return -1;
  }
  return real(fd, address, length);
}

namespace {

constexpr const char* kUnit = "Orvix/CppSocket";

// The message of the SocketException fn throws.
template <class F>
std::string thrownText(F fn) {
  try {
    fn();
  } catch (const SocketException& e) {
    return e.message;
  }
  return "<nothing thrown>";
}

std::string withError(const std::string& text, int err) { return text + ": " + errorText(err); }

// The descriptor the next socket() or open() will get.
int lowestFreeFd() {
  const int fd = ::open("/dev/null", O_RDONLY);
  ::close(fd);
  return fd;
}

bool isOpenSocket(int fd) {
  struct stat st;
  return fstat(fd, &st) == 0 && S_ISSOCK(st.st_mode);
}

bool isOpen(int fd) { return fcntl(fd, F_GETFD) != -1; }

// A plain listening socket on 127.0.0.1 with a port the kernel chose: the far end for client
// tests.
class RawListener {
 public:
  RawListener() {
    fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a), 0) << strerror(errno);
    EXPECT_EQ(::listen(fd, 16), 0);
    socklen_t n = sizeof a;
    getsockname(fd, reinterpret_cast<sockaddr*>(&a), &n);
    port = ntohs(a.sin_port);
  }
  ~RawListener() { ::close(fd); }
  RawListener(const RawListener&) = delete;
  RawListener& operator=(const RawListener&) = delete;

  // The next connection; a client that has connected is already waiting.
  int acceptOne() { return ::accept(fd, nullptr, nullptr); }

  int fd;
  int port;
};

// A net client connected to a raw peer descriptor.
struct ClientAndPeer {
  RawListener listener;
  Socket::Ptr client = Socket::create("127.0.0.1", listener.port);
  int peer = listener.acceptOne();
  ~ClientAndPeer() {
    if (peer >= 0) ::close(peer);
  }
  SocketImpl& impl() { return static_cast<SocketImpl&>(*client); }
};

void writeRaw(int fd, unsigned char byte) { ASSERT_EQ(::write(fd, &byte, 1), 1); }

int readRaw(int fd) {
  unsigned char byte;
  return ::read(fd, &byte, 1) == 1 ? byte : -1;
}

// Ports for servers: below the kernel's ephemeral range, chosen at random, another one tried
// while a port is taken (by other tests, or connections still in TIME_WAIT).
int randomPort() {
  static std::mt19937 rng(std::random_device{}() ^ static_cast<unsigned>(getpid()));
  return 20000 + static_cast<int>(rng() % 12000);
}

ServerSocket::Ptr openServer(int* port) {
  const std::string inUse = withError("bind failed", EADDRINUSE);
  for (int attempt = 0; attempt < 500; ++attempt) {
    *port = randomPort();
    try {
      return ServerSocket::create(*port);
    } catch (const SocketException& e) {
      if (e.message != inUse) throw;
    }
  }
  ADD_FAILURE() << "no free port found";
  return nullptr;
}

ServerSocketImpl& implOf(const ServerSocket::Ptr& server) {
  return static_cast<ServerSocketImpl&>(*server);
}

// Waits (bounded) until n threads are inside accept().
bool waitForAccepting(ServerSocketImpl& server, int n) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (server.getAcceptCount() < n) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

// Connects to port and hangs up at once; true when the connection is refused (nobody listens
// there any more).
bool connectionRefused(int port) {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(static_cast<uint16_t>(port));
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const bool refused =
      ::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 && errno == ECONNREFUSED;
  ::close(fd);
  return refused;
}

}  // namespace

// ---- the exception -------------------------------------------------------------------------

TEST(SocketException, StandsAloneAndCarriesItsMessage) {
  static_assert(!std::is_base_of<std::exception, SocketException>::value,
                "caught by its own type only");
  static_assert(std::has_virtual_destructor<SocketException>::value, "");
  static_assert(std::has_virtual_destructor<Socket>::value, "");
  static_assert(std::has_virtual_destructor<ServerSocket>::value, "");
  const SocketException e("write filed: Broken pipe");
  EXPECT_EQ(e.message, "write filed: Broken pipe");
}

// ---- client sockets ------------------------------------------------------------------------

TEST(CppSocket, ConnectsToLoopbackUnattached) {
  ClientAndPeer c;
  ASSERT_GE(c.peer, 0);
  EXPECT_GE(c.impl().getFd(), 0);
  EXPECT_EQ(c.impl().getServer(), nullptr);
  c.client->close();
  EXPECT_EQ(c.impl().getFd(), -1);
}

TEST(CppSocket, ReadReturnsEveryByteValue) {
  ClientAndPeer c;
  for (int v = 0; v < 256; ++v) writeRaw(c.peer, static_cast<unsigned char>(v));
  for (int v = 0; v < 256; ++v) ASSERT_EQ(c.client->read(), v);
  c.client->close();
}

TEST(CppSocket, WriteSendsTheLowEightBitsAsOneByte) {
  ClientAndPeer c;
  for (int v = 0; v < 256; ++v) c.client->write(v);
  for (int v = 0; v < 256; ++v) ASSERT_EQ(readRaw(c.peer), v);
  c.client->write(0x141);
  c.client->write(-1);
  c.client->write(256);
  c.client->write(-256);
  EXPECT_EQ(readRaw(c.peer), 0x41);
  EXPECT_EQ(readRaw(c.peer), 0xFF);
  EXPECT_EQ(readRaw(c.peer), 0x00);
  EXPECT_EQ(readRaw(c.peer), 0x00);
  c.client->close();
}

TEST(CppSocket, ReadAfterPeerClosedIsEofWithWhateverErrnoHolds) {
  ClientAndPeer c;
  writeRaw(c.peer, 7);
  ::close(c.peer);
  c.peer = -1;
  EXPECT_EQ(c.client->read(), 7);
  errno = 0;
  EXPECT_EQ(thrownText([&] { c.client->read(); }), withError("EOF", 0));
  // read() returning 0 leaves errno alone: the text carries the previous error.
  errno = EINTR;
  EXPECT_EQ(thrownText([&] { c.client->read(); }), "EOF: " + errorText(EINTR));
  c.client->close();
}

TEST(CppSocket, ClosedSocketRefusesReadAndWriteWithoutErrorText) {
  ClientAndPeer c;
  c.client->close();
  errno = EBADF;
  EXPECT_EQ(thrownText([&] { c.client->read(); }), "read when socket is not open");
  EXPECT_EQ(thrownText([&] { c.client->write(1); }), "write when socket is not open");
}

TEST(CppSocket, CloseTwiceDoesNothingTheSecondTime) {
  ClientAndPeer c;
  const int fd = c.impl().getFd();
  c.client->close();
  EXPECT_FALSE(isOpen(fd));
  c.client->close();
  EXPECT_EQ(c.impl().getFd(), -1);
  // The peer sees the orderly end.
  unsigned char b;
  EXPECT_EQ(::read(c.peer, &b, 1), 0);
}

TEST(CppSocket, DestructorCloses) {
  RawListener l;
  int fd;
  {
    Socket::Ptr s = Socket::create("127.0.0.1", l.port);
    fd = static_cast<SocketImpl&>(*s).getFd();
    EXPECT_TRUE(isOpenSocket(fd));
  }
  const int peer = l.acceptOne();
  unsigned char b;
  EXPECT_EQ(::read(peer, &b, 1), 0);
  ::close(peer);
}

TEST(CppSocket, FailingWriteIsWriteFiledWithTheErrorText) {
  // A write on a socket shut for writing fails with EPIPE and raises SIGPIPE, which the child
  // ignores (the library sets no signal disposition of its own).
  const ChildResult r = runInChild([] {
    signal(SIGPIPE, SIG_IGN);
    ClientAndPeer c;
    ::shutdown(c.impl().getFd(), SHUT_WR);
    std::cout << thrownText([&] { c.client->write(65); }) << "\n";
    c.client->close();
    std::cout << c.impl().getFd() << "\n";
  });
  ASSERT_TRUE(r.exited()) << r.describe();
  EXPECT_EQ(r.out, withError("write filed", EPIPE) + "\n-1\n");
  EXPECT_EQ(r.err, "");
}

TEST(CppSocketDeathTest, PeerResetFailsReadThenShutdownKeepsTheDescriptorAndDestructionEnds) {
  const ChildResult r = runInChild([] {
    RawListener l;
    Socket::Ptr s = Socket::create("127.0.0.1", l.port);
    const int peer = l.acceptOne();
    linger abortive{1, 0};
    setsockopt(peer, SOL_SOCKET, SO_LINGER, &abortive, sizeof abortive);
    ::close(peer);  // sends a reset
    std::cout << thrownText([&] { s->read(); }) << "\n";
    const int fd = static_cast<SocketImpl&>(*s).getFd();
    std::cout << thrownText([&] { s->close(); }) << "\n";
    std::cout << (static_cast<SocketImpl&>(*s).getFd() == fd && isOpenSocket(fd)) << std::endl;
    // Leaving the scope destroys the socket: its close() throws out of the destructor.
  });
  EXPECT_TRUE(r.signaled()) << r.describe();
  EXPECT_EQ(r.signal(), SIGABRT);
  EXPECT_EQ(r.out, withError("read failed", ECONNRESET) + "\n" +
                       withError("shutdown failed", ENOTCONN) + "\n1\n");
  EXPECT_EQ(r.err, "terminate called after throwing an instance of 'net::SocketException'\n");
}

TEST(CppSocket, FailedCloseThrowsAndKeepsTheDescriptorForAnotherTry) {
  ClientAndPeer c;
  const int fd = c.impl().getFd();
  failClose = EIO;
  EXPECT_EQ(thrownText([&] { c.client->close(); }), withError("close failed", EIO));
  EXPECT_EQ(unclosedFd, fd);
  EXPECT_EQ(c.impl().getFd(), fd);
  c.client->close();  // shut down already; shutdown once more succeeds, close now too
  EXPECT_EQ(c.impl().getFd(), -1);
  EXPECT_FALSE(isOpen(fd));
}

TEST(CppSocket, ConnectRefusedLeavesItsDescriptorOpen) {
  // A bound socket that does not listen: connecting to it is refused at once.
  const int holder = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(::bind(holder, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
  socklen_t n = sizeof a;
  getsockname(holder, reinterpret_cast<sockaddr*>(&a), &n);

  const int next = lowestFreeFd();
  EXPECT_EQ(thrownText([&] { Socket::create("127.0.0.1", ntohs(a.sin_port)); }),
            withError("connect failed", ECONNREFUSED));
  EXPECT_TRUE(isOpenSocket(next)) << "the constructor's descriptor leaks, as built";
  ::close(next);
  ::close(holder);
}

TEST(CppSocket, SocketCreationFailure) {
  const int next = lowestFreeFd();
  failSocket = EMFILE;
  EXPECT_EQ(thrownText([] { Socket::create("127.0.0.1", 1); }), withError("socket failed", EMFILE));
  EXPECT_FALSE(isOpen(next));
}

TEST(CppSocket, HostLookupFailureNamesErrnoAndLeavesItsDescriptorOpen) {
  const int next = lowestFreeFd();
  failGethostbyname = ENOENT;
  EXPECT_EQ(thrownText([] { Socket::create("no.such.host", 1); }),
            withError("gethostbyname failed", ENOENT));
  EXPECT_TRUE(isOpenSocket(next));
  ::close(next);
}

// ---- servers -------------------------------------------------------------------------------

TEST(CppServerSocket, AcceptedSocketIsAttachedAndCarriesEveryByteBothWays) {
  int port;
  ServerSocket::Ptr server = openServer(&port);
  ASSERT_TRUE(server);
  ServerSocketImpl& impl = implOf(server);
  EXPECT_GE(impl.getFd(), 0);
  EXPECT_FALSE(impl.isClosed());

  Socket::Ptr client = Socket::create("127.0.0.1", port);
  Socket::Ptr accepted = server->accept();
  auto& acceptedImpl = static_cast<SocketImpl&>(*accepted);
  EXPECT_EQ(acceptedImpl.getServer().get(), &impl);
  EXPECT_EQ(impl.getSocketCount(), 1u);
  EXPECT_EQ(impl.getAcceptCount(), 0);

  for (int v = 0; v < 256; ++v) client->write(v);
  for (int v = 0; v < 256; ++v) ASSERT_EQ(accepted->read(), v);
  for (int v = 255; v >= 0; --v) accepted->write(v);
  for (int v = 255; v >= 0; --v) ASSERT_EQ(client->read(), v);

  client->close();
  accepted->close();
  EXPECT_EQ(acceptedImpl.getServer(), nullptr);
  EXPECT_EQ(impl.getSocketCount(), 0u);
  server->close();
}

TEST(CppServerSocket, AcceptAfterCloseIsNotOpen) {
  int port;
  ServerSocket::Ptr server = openServer(&port);
  ASSERT_TRUE(server);
  server->close();
  EXPECT_TRUE(implOf(server).isClosed());
  EXPECT_EQ(implOf(server).getFd(), -1);
  EXPECT_EQ(thrownText([&] { server->accept(); }), "accept when server socket is not open!");
  server->close();  // harmless
  EXPECT_EQ(implOf(server).getAcceptCount(), 0);
  EXPECT_TRUE(connectionRefused(port));
}

TEST(CppServerSocket, BindOnAPortInUseFailsAndClosesItsDescriptor) {
  int port;
  ServerSocket::Ptr server = openServer(&port);
  ASSERT_TRUE(server);
  const int next = lowestFreeFd();
  EXPECT_EQ(thrownText([&] { ServerSocket::create(port); }),
            withError("bind failed", EADDRINUSE));
  EXPECT_FALSE(isOpen(next));
  server->close();
}

// Servers that never take a connection bind port 0: the kernel picks a free one.
TEST(CppServerSocket, SocketCreationFailure) {
  failSocket = ENFILE;
  EXPECT_EQ(thrownText([] { ServerSocket::create(0); }), withError("socket failed", ENFILE));
}

TEST(CppServerSocket, ListenFailureClosesItsDescriptor) {
  const int next = lowestFreeFd();
  failListen = EADDRINUSE;
  EXPECT_EQ(thrownText([] { ServerSocket::create(0); }),
            withError("listen failed", EADDRINUSE));
  EXPECT_FALSE(isOpen(next));
}

TEST(CppServerSocket, FailedCloseAfterBindErrorIsALineThenTheBindError) {
  int port;
  ServerSocket::Ptr server = openServer(&port);
  ASSERT_TRUE(server);
  CaptureFd err(2);
  failClose = EIO;
  EXPECT_EQ(thrownText([&] { ServerSocket::create(port); }),
            withError("bind failed", EADDRINUSE));
  EXPECT_EQ(err.text(), std::string(program_invocation_name) + ":" + kUnit +
                            ":210: close after bind error failed: " + errorText(EIO) + "\n");
  ASSERT_TRUE(isOpenSocket(unclosedFd));
  ::close(unclosedFd);
  server->close();
}

TEST(CppServerSocket, FailedCloseAfterListenErrorIsALineThenTheListenError) {
  CaptureFd err(2);
  failListen = EOPNOTSUPP;
  failClose = EBADF;
  EXPECT_EQ(thrownText([] { ServerSocket::create(0); }),
            withError("listen failed", EOPNOTSUPP));
  EXPECT_EQ(err.text(), std::string(program_invocation_name) + ":" + kUnit +
                            ":219: close after listen error failed: " + errorText(EBADF) + "\n");
  ASSERT_TRUE(isOpenSocket(unclosedFd));
  ::close(unclosedFd);
}

TEST(CppServerSocket, FailedCloseThrowsKeepsTheDescriptorAndAnotherCloseFinishes) {
  int port;
  ServerSocket::Ptr server = openServer(&port);
  ASSERT_TRUE(server);
  const int fd = implOf(server).getFd();
  failClose = EINTR;
  EXPECT_EQ(thrownText([&] { server->close(); }), withError("close failed", EINTR));
  EXPECT_EQ(implOf(server).getFd(), fd);
  EXPECT_TRUE(implOf(server).isClosed());
  server->close();
  EXPECT_EQ(implOf(server).getFd(), -1);
  EXPECT_FALSE(isOpen(fd));
}

TEST(CppServerSocket, SelectFailureLeavesAcceptAndItsCount) {
  int port;
  ServerSocket::Ptr server = openServer(&port);
  ASSERT_TRUE(server);
  failSelect = EINTR;
  EXPECT_EQ(thrownText([&] { server->accept(); }), withError("select in accept failed", EINTR));
  EXPECT_EQ(implOf(server).getAcceptCount(), 0);
  server->close();  // no accept pending: returns at once
  EXPECT_EQ(implOf(server).getFd(), -1);
}

TEST(CppServerSocket, AcceptFailureKeepsTheThreadCountedSoCloseWaitsForEver) {
  const ChildResult r = runInChild(
      [] {
        int port;
        ServerSocket::Ptr server = openServer(&port);
        Socket::Ptr client = Socket::create("127.0.0.1", port);
        failAccept = EMFILE;
        std::cout << thrownText([&] { server->accept(); }) << "\n"
                  << implOf(server).getAcceptCount() << std::endl;
        server->close();
        std::cout << "close returned" << std::endl;
      },
      "", 3);
  EXPECT_TRUE(r.timedOut) << r.describe();
  EXPECT_EQ(r.out, withError("accept failed", EMFILE) + "\n1\n");
}

TEST(CppServerSocket, CloseInterruptsOneAccept) {
  int port;
  ServerSocket::Ptr server = openServer(&port);
  ASSERT_TRUE(server);
  std::string text;
  std::thread acceptor([&] { text = thrownText([&] { server->accept(); }); });
  ASSERT_TRUE(waitForAccepting(implOf(server), 1));
  server->close();
  acceptor.join();
  EXPECT_EQ(text, "accept interrupted by close");
  EXPECT_EQ(implOf(server).getAcceptCount(), 0);
}

class CppServerSocketClose : public testing::TestWithParam<int> {};

TEST_P(CppServerSocketClose, EveryPendingAcceptIsInterruptedAndThePortIsFreeAgain) {
  const int threads = GetParam();
  int port;
  ServerSocket::Ptr server = openServer(&port);
  ASSERT_TRUE(server);
  std::vector<std::string> texts(static_cast<std::size_t>(threads));
  std::vector<std::thread> acceptors;
  for (int i = 0; i < threads; ++i)
    acceptors.emplace_back([&, i] { texts[static_cast<std::size_t>(i)] =
                                        thrownText([&] { server->accept(); }); });
  const bool allInside = waitForAccepting(implOf(server), threads);

  const auto begin = std::chrono::steady_clock::now();
  server->close();
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
  for (auto& t : acceptors) t.join();

  ASSERT_TRUE(allInside);
  // About one second (the accept poll); the bound only catches a close that hangs.
  EXPECT_LT(seconds, 15.0);
  for (const auto& text : texts) EXPECT_EQ(text, "accept interrupted by close");
  EXPECT_EQ(implOf(server).getAcceptCount(), 0);
  EXPECT_EQ(implOf(server).getFd(), -1);

  ServerSocket::Ptr again = ServerSocket::create(port);
  again->close();
}

INSTANTIATE_TEST_SUITE_P(Threads, CppServerSocketClose, testing::Values(2, 8));

TEST(CppServerSocket, AcceptedSocketsKeepTheServerAliveUntilTheLastCloses) {
  int port;
  ServerSocket::Ptr server = openServer(&port);
  ASSERT_TRUE(server);
  const std::weak_ptr<ServerSocket> watch = server;
  Socket::Ptr client1 = Socket::create("127.0.0.1", port);
  Socket::Ptr accepted1 = server->accept();
  Socket::Ptr client2 = Socket::create("127.0.0.1", port);
  Socket::Ptr accepted2 = server->accept();

  server.reset();
  ASSERT_FALSE(watch.expired());
  // Still listening: nobody closed it.
  EXPECT_GE(implOf(watch.lock()).getFd(), 0);
  EXPECT_EQ(implOf(watch.lock()).getSocketCount(), 2u);

  // The clients end first, so the server side's close is the passive one.
  client1->close();
  client2->close();
  EXPECT_EQ(thrownText([&] { accepted1->read(); }).substr(0, 5), "EOF: ");
  EXPECT_EQ(thrownText([&] { accepted2->read(); }).substr(0, 5), "EOF: ");

  accepted1->close();
  ASSERT_FALSE(watch.expired());
  EXPECT_EQ(implOf(watch.lock()).getSocketCount(), 1u);
  accepted2->close();  // drops the last reference: the server closes and goes
  EXPECT_TRUE(watch.expired());
  EXPECT_TRUE(connectionRefused(port));
}

TEST(CppServerSocket, DestroyingTheLastAcceptedSocketAlsoDestroysTheServer) {
  int port;
  ServerSocket::Ptr server = openServer(&port);
  ASSERT_TRUE(server);
  const std::weak_ptr<ServerSocket> watch = server;
  Socket::Ptr client = Socket::create("127.0.0.1", port);
  Socket::Ptr accepted = server->accept();
  server.reset();
  client->close();
  EXPECT_FALSE(watch.expired());
  accepted.reset();
  EXPECT_TRUE(watch.expired());
  EXPECT_TRUE(connectionRefused(port));
}

TEST(CppServerSocket, ServerBuiltWithoutCreateHandsOutUnattachedSockets) {
  int port = 0;
  std::unique_ptr<ServerSocketImpl> server;
  for (int attempt = 0; !server && attempt < 500; ++attempt) {
    try {
      port = randomPort();
      server.reset(new ServerSocketImpl(port));
    } catch (const SocketException&) {
    }
  }
  ASSERT_TRUE(server);
  Socket::Ptr client = Socket::create("127.0.0.1", port);
  Socket::Ptr accepted = server->accept();
  EXPECT_EQ(static_cast<SocketImpl&>(*accepted).getServer(), nullptr);
  client->close();
  accepted->close();
  // Nothing detached: the list keeps the expired entry.
  EXPECT_EQ(server->getSocketCount(), 1u);
  server->close();
}

TEST(CppSocketDeathTest, AttachToSomeoneElsesEntryAsserts) {
  expectAssertion(
      [] {
        auto socket = std::make_shared<SocketImpl>(-1);
        auto other = std::make_shared<SocketImpl>(-1);
        net::SocketList list{other};
        socket->attachToServerSocket(nullptr, list.begin());
      },
      kUnit, 356,
      "virtual void net::SocketImpl::attachToServerSocket(net::ServerSocketImplPtr, "
      "std::__cxx11::list<std::weak_ptr<net::SocketImpl> >::iterator)",
      "it->lock().get() == this");
}

TEST(CppSocketDeathTest, DecrementingAZeroAcceptCountAsserts) {
  expectAssertion(
      [] {
        int port;
        ServerSocket::Ptr server = openServer(&port);
        implOf(server).decrementAcceptCount();
      },
      kUnit, 227, "void net::ServerSocketImpl::decrementAcceptCount()", "acceptCount > 0");
}

TEST(CppSocketDeathTest, SelectReadyWithoutTheDescriptorAsserts) {
  expectAssertion(
      [] {
        int port;
        ServerSocket::Ptr server = openServer(&port);
        selectFindsNothing = 1;
        server->accept();
      },
      kUnit, 266, "virtual net::Socket::Ptr net::ServerSocketImpl::accept()",
      "FD_ISSET(fd1, &readfds)");
}

// Several threads accept on one server; a connection wakes every select, one thread takes it
// and the others go on into accept() itself, where they wait for the next connection. close()
// waits for them too: it returns only after connections have come for every such thread.
TEST(CppServerSocket, ThreadThatLostTheRaceForAConnectionHoldsCloseUntilTheNextOne) {
  int port;
  ServerSocket::Ptr server = openServer(&port);
  ASSERT_TRUE(server);
  selectFindsReady = 1;  // as if another thread had just taken the connection select saw
  Socket::Ptr accepted;
  std::thread acceptor([&] { accepted = server->accept(); });
  ASSERT_TRUE(waitForAccepting(implOf(server), 1));

  std::atomic<bool> closeReturned{false};
  std::thread closer([&] {
    server->close();
    closeReturned = true;
  });
  // It cannot return before a connection comes, however long one waits; a second is plenty to
  // see the closer has reached the wait.
  std::this_thread::sleep_for(std::chrono::milliseconds(1500));
  EXPECT_FALSE(closeReturned.load());
  EXPECT_TRUE(implOf(server).isClosed());
  EXPECT_EQ(implOf(server).getAcceptCount(), 1);

  Socket::Ptr client = Socket::create("127.0.0.1", port);
  acceptor.join();
  closer.join();
  EXPECT_TRUE(closeReturned.load());
  ASSERT_TRUE(accepted);
  EXPECT_EQ(implOf(server).getFd(), -1);
  client->close();
  accepted->close();
}

// Many clients against one server with several accepting threads. Accepted sockets are closed
// only after every accept has ended: their close() unregisters without the server's lock. A
// thread that lost the race for the last connection waits in accept() itself (see above), so
// while close() runs, empty connections come until it returns.
TEST(CppServerSocket, ManyClientsAgainstSeveralAcceptingThreads) {
  constexpr int kAcceptors = 4;
  constexpr int kClientThreads = 4;
  constexpr int kClientsEach = 25;
  int port;
  ServerSocket::Ptr server = openServer(&port);
  ASSERT_TRUE(server);

  std::vector<std::vector<Socket::Ptr>> accepted(kAcceptors);
  std::vector<std::string> endTexts(kAcceptors);
  std::vector<int> echoed(kAcceptors, 0);
  std::atomic<int> echoFailures{0};
  std::vector<std::thread> acceptors;
  for (int a = 0; a < kAcceptors; ++a) {
    acceptors.emplace_back([&, a] {
      const auto i = static_cast<std::size_t>(a);
      for (;;) {
        Socket::Ptr s;
        try {
          s = server->accept();
        } catch (const SocketException& e) {
          endTexts[i] = e.message;
          return;
        }
        accepted[i].push_back(s);
        try {
          s->write(s->read());
          ++echoed[i];
        } catch (const SocketException&) {
          // an empty connection sent while closing
        }
      }
    });
  }
  std::vector<std::thread> clients;
  for (int c = 0; c < kClientThreads; ++c) {
    clients.emplace_back([&, c] {
      for (int i = 0; i < kClientsEach; ++i) {
        try {
          Socket::Ptr s = Socket::create("127.0.0.1", port);
          const int value = (c * kClientsEach + i) & 0xFF;
          s->write(value);
          if (s->read() != value) ++echoFailures;
          s->close();
        } catch (const SocketException&) {
          ++echoFailures;
        }
      }
    });
  }
  for (auto& t : clients) t.join();

  std::atomic<bool> closed{false};
  std::thread closer([&] {
    server->close();
    closed = true;
  });
  int emptyConnections = 0;
  while (!closed) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    if (closed || emptyConnections >= 100) break;
    // An empty connection: connected (into the backlog) and hung up at once; refused once the
    // server has closed its descriptor.
    if (connectionRefused(port)) break;
    ++emptyConnections;
  }
  closer.join();
  for (auto& t : acceptors) t.join();

  EXPECT_EQ(echoFailures.load(), 0);
  int echoedTotal = 0;
  std::size_t total = 0;
  for (std::size_t a = 0; a < kAcceptors; ++a) {
    // A thread that took an empty connection comes back after close() has finished.
    EXPECT_TRUE(endTexts[a] == "accept interrupted by close" ||
                endTexts[a] == "accept when server socket is not open!")
        << endTexts[a];
    echoedTotal += echoed[a];
    total += accepted[a].size();
  }
  EXPECT_EQ(echoedTotal, kClientThreads * kClientsEach);
  EXPECT_LE(emptyConnections, kAcceptors);
  EXPECT_EQ(implOf(server).getSocketCount(), total);
  for (auto& list : accepted)
    for (auto& s : list) s->close();
  EXPECT_EQ(implOf(server).getSocketCount(), 0u);
  EXPECT_EQ(implOf(server).getAcceptCount(), 0);
}
