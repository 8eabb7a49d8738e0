// Loopback echo with net sockets: a server thread echoes what one client sends, byte by byte;
// then a second thread waits in accept() while the main thread closes the server, and sees its
// accept interrupted.
#include <unistd.h>

#include <chrono>
#include <iostream>
#include <string>
#include <thread>

#include "Orvix/CppSocket.hpp"

namespace {

// A server on a free port of 20000..31999; ports in use are skipped.
net::ServerSocket::Ptr openServer(int* port) {
  for (int candidate = 20000 + getpid() % 12000, tries = 0; tries < 12000; ++tries) {
    try {
      *port = candidate;
      return net::ServerSocket::create(candidate);
    } catch (const net::SocketException& e) {
      std::cout << "   port " << candidate << ": " << e.message << "\n";
      candidate = 20000 + (candidate - 20000 + 1) % 12000;
    }
  }
  return nullptr;
}

}  // namespace

int main() {
  std::cout << "Orvix socket demo: loopback echo, then closing a server while a thread accepts.\n";
  int port = 0;
  net::ServerSocket::Ptr server = openServer(&port);
  if (!server) return 1;
  std::cout << "1. Server listening on port " << port << ".\n";

  // The echo thread: one connection, every byte back until the client hangs up.
  std::thread echo([server] {
    net::Socket::Ptr peer = server->accept();
    try {
      for (;;) peer->write(peer->read());
    } catch (const net::SocketException& e) {
      std::cout << "   echo thread: client gone (" << e.message << ")\n";
    }
    peer->close();
  });

  net::Socket::Ptr client = net::Socket::create("127.0.0.1", port);
  const std::string text = "Hallo, Drucker!";
  std::string answer;
  for (char c : text) {
    client->write(c);
    answer += static_cast<char>(client->read());
  }
  std::cout << "2. Sent \"" << text << "\", echoed \"" << answer << "\".\n";
  client->close();
  echo.join();

  std::cout << "3. A thread waits in accept(); the main thread closes the server.\n";
  std::thread waiter([server] {
    try {
      server->accept();
      std::cout << "   waiter: unexpectedly got a connection\n";
    } catch (const net::SocketException& e) {
      std::cout << "   waiter: \"" << e.message << "\"\n";
    }
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  const auto begin = std::chrono::steady_clock::now();
  server->close();
  const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(
                      std::chrono::steady_clock::now() - begin)
                      .count();
  waiter.join();
  std::cout << "   close() returned after " << ms
            << " ms (accept looks at the closed flag once a second).\n";

  try {
    server->accept();
  } catch (const net::SocketException& e) {
    std::cout << "4. accept() on the closed server: \"" << e.message << "\"\n";
  }
  return 0;
}
