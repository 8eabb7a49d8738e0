// Server sockets closed while a thread waits in accept(), with a client connecting at a random
// moment around the close. One accepting thread per server: with several, a thread that loses
// the race for a connection waits inside accept() until the next one, and close() with it.
#include "Orvix/CppSocket.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "StressSupport.hpp"

using net::ServerSocket;
using net::ServerSocketImpl;
using net::Socket;
using net::SocketException;
using orvix_stress::pick;

namespace {

constexpr int kBatch = 8;  // servers closed side by side; each one is a round

// One server of a batch and what happened to it.
struct Case {
  int port = 0;
  std::shared_ptr<ServerSocket> server;
  bool withClient = false;
  int clientDelay = 0;  // spin before connecting, counted from the start of the close
  int closeDelay = 0;   // spin after the accepting thread is inside accept()
  // Written by the accepting thread.
  bool accepted = false;
  std::string acceptError;
  int served = -1;  // the byte it read from the accepted connection
  // Written by the client thread.
  bool answered = false;
  int answer = -1;
  std::string clientError;
};

std::shared_ptr<ServerSocket> openServer(int* port, std::set<int>& taken) {
  for (int attempt = 0; attempt < 1000; ++attempt) {
    const int candidate = pick(20000, 31999);
    if (taken.count(candidate) != 0) continue;
    try {
      auto server = ServerSocket::create(candidate);
      *port = candidate;
      taken.insert(candidate);
      return server;
    } catch (const SocketException&) {
      // in use (another program, or a connection still in TIME_WAIT): try another one
    }
  }
  return nullptr;
}

}  // namespace

// Each round: a server, one thread in accept(), a close after a random moment, and in half the
// rounds a client connecting around the close that sends one byte and expects it back plus one.
// The accepting thread either gets the connection or leaves with exactly "accept interrupted by
// close"; the client gets its answer exactly when its connection was accepted (nothing lost);
// close() returns with the descriptor closed; the server object goes once the accepted socket is
// closed; every thread ends. Eight servers go through this side by side.
TEST(CppSocketStress, ServerClosedWithPendingAccept) {
  const int baseline = orvix_stress::threadCount();
  const int batches = (orvix_stress::rounds(1000) + kBatch - 1) / kBatch;
  orvix_stress::repeatExactly(batches, "batches of 8 servers", [&](int batch) {
    std::vector<Case> cases(kBatch);
    std::set<int> taken;
    for (Case& c : cases) {
      c.server = openServer(&c.port, taken);
      ASSERT_TRUE(c.server) << "no free port";
      c.withClient = pick(0, 1) == 1;
      c.clientDelay = pick(0, 400000);
      c.closeDelay = pick(0, 200000);
    }
    std::vector<std::thread> threads;
    for (Case& c : cases) {
      threads.emplace_back([&c] {
        try {
          Socket::Ptr s = c.server->accept();
          c.accepted = true;
          c.served = s->read();
          s->write(c.served + 1);
          s->close();
        } catch (const SocketException& e) {
          c.acceptError = e.message;
        }
      });
    }
    for (Case& c : cases) {
      auto& impl = static_cast<ServerSocketImpl&>(*c.server);
      while (impl.getAcceptCount() < 1) std::this_thread::yield();
      threads.emplace_back([&c] {
        orvix_stress::spin(c.closeDelay);
        c.server->close();
      });
      if (c.withClient) {
        threads.emplace_back([&c] {
          orvix_stress::spin(c.clientDelay);
          try {
            Socket::Ptr s = Socket::create("127.0.0.1", c.port);
            s->write(0x41);
            c.answer = s->read();
            c.answered = true;
            s->close();
          } catch (const SocketException& e) {
            c.clientError = e.message;
          }
        });
      }
    }
    for (auto& t : threads) t.join();
    for (int i = 0; i < kBatch; ++i) {
      Case& c = cases[static_cast<std::size_t>(i)];
      const std::string where = "batch " + std::to_string(batch) + " server " + std::to_string(i);
      auto& impl = static_cast<ServerSocketImpl&>(*c.server);
      ASSERT_EQ(impl.getFd(), -1) << where;
      ASSERT_EQ(impl.getAcceptCount(), 0) << where;
      if (c.accepted) {
        ASSERT_TRUE(c.withClient) << where << ": a connection from nowhere";
        ASSERT_EQ(c.served, 0x41) << where;
        ASSERT_TRUE(c.answered) << where << ": accepted but not answered: " << c.clientError;
        ASSERT_EQ(c.answer, 0x42) << where;
      } else {
        ASSERT_EQ(c.acceptError, "accept interrupted by close") << where;
        ASSERT_FALSE(c.answered) << where << ": answered without an accepted connection";
      }
      std::weak_ptr<ServerSocket> gone = c.server;
      c.server.reset();
      ASSERT_TRUE(gone.expired()) << where;
    }
    ASSERT_TRUE(orvix_stress::threadsBackTo(baseline)) << "batch " << batch;
  });
}
