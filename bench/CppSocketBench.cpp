// One-byte ping-pong over loopback through net::Socket against raw read/write on the same kind
// of connection (accepted through net::ServerSocket, both ends' descriptors used directly), and
// how long closing a server takes while one thread waits in accept().
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <random>
#include <thread>

#include "Orvix/CppSocket.hpp"

namespace {

// A server on a free port below the ephemeral range; taken ports are skipped.
net::ServerSocket::Ptr openServer(int* port) {
  static std::mt19937 rng(static_cast<unsigned>(getpid()));
  for (int attempt = 0; attempt < 1000; ++attempt) {
    *port = 20000 + static_cast<int>(rng() % 12000);
    try {
      return net::ServerSocket::create(*port);
    } catch (const net::SocketException&) {
    }
  }
  return nullptr;
}

// A connected client and its accepted peer, with a thread echoing on the peer.
struct EchoPair {
  explicit EchoPair(bool raw) {
    int port;
    server = openServer(&port);
    client = net::Socket::create("127.0.0.1", port);
    peer = server->accept();
    clientFd = static_cast<net::SocketImpl&>(*client).getFd();
    const int peerFd = static_cast<net::SocketImpl&>(*peer).getFd();
    echo = std::thread([this, raw, peerFd] {
      if (raw) {
        unsigned char byte;
        while (::read(peerFd, &byte, 1) == 1 && ::write(peerFd, &byte, 1) == 1) {
        }
      } else {
        try {
          for (;;) peer->write(peer->read());
        } catch (const net::SocketException&) {
        }
      }
    });
  }
  ~EchoPair() {
    client->close();  // the echo thread sees the end
    echo.join();
    peer->close();
    server->close();
  }

  net::ServerSocket::Ptr server;
  net::Socket::Ptr client;
  net::Socket::Ptr peer;
  int clientFd;
  std::thread echo;
};

void BM_RawPingPong(benchmark::State& state) {
  EchoPair pair(true);
  unsigned char byte = 0;
  for (auto _ : state) {
    ++byte;
    unsigned char back;
    if (::write(pair.clientFd, &byte, 1) != 1 || ::read(pair.clientFd, &back, 1) != 1 ||
        back != byte) {
      state.SkipWithError("echo failed");
      break;
    }
  }
}

void BM_SocketPingPong(benchmark::State& state) {
  EchoPair pair(false);
  int byte = 0;
  for (auto _ : state) {
    byte = (byte + 1) & 0xFF;
    pair.client->write(byte);
    if (pair.client->read() != byte) {
      state.SkipWithError("echo failed");
      break;
    }
  }
}

// close() of a server while one thread waits in accept(). The accept has waited a random part of
// its one-second poll before, as it would at an arbitrary moment.
void BM_ServerCloseWithOnePendingAccept(benchmark::State& state) {
  static std::mt19937 rng(static_cast<unsigned>(getpid()));
  for (auto _ : state) {
    int port;
    net::ServerSocket::Ptr server = openServer(&port);
    auto& impl = static_cast<net::ServerSocketImpl&>(*server);
    std::thread waiter([&] {
      try {
        server->accept();
      } catch (const net::SocketException&) {
      }
    });
    while (impl.getAcceptCount() < 1) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    std::this_thread::sleep_for(std::chrono::milliseconds(rng() % 1000));
    const auto begin = std::chrono::steady_clock::now();
    server->close();
    const auto end = std::chrono::steady_clock::now();
    state.SetIterationTime(std::chrono::duration<double>(end - begin).count());
    waiter.join();
  }
}

}  // namespace

BENCHMARK(BM_RawPingPong);
BENCHMARK(BM_SocketPingPong);
BENCHMARK(BM_ServerCloseWithOnePendingAccept)
    ->Unit(benchmark::kMillisecond)
    ->UseManualTime()
    ->Iterations(1)
    ->Repetitions(20)
    ->ComputeStatistics("max", [](const std::vector<double>& v) {
      return *std::max_element(v.begin(), v.end());
    })
    ->DisplayAggregatesOnly(true);

BENCHMARK_MAIN();
