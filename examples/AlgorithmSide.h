// The algorithm process of the demo.
//
// Serves requests arriving on its socket end: a DefaultReactor on its own
// thread wakes a SocketEventHandler whose runnable receives each message and
// enqueues it into the MessageLoop of a second thread; there the request
// handler maps every buffer, reverses its 32-bit words in place and replies
// with the reply flag and a status byte. Runs until SIGTERM or SIGINT, or
// until the camera process goes away (the reactor's hang-up listener), and
// then exits with status 0.
#pragma once

namespace demo {

class AlgorithmSide {
  public:
    // Takes ownership of `socketFd`, the algorithm's end of the socket pair.
    explicit AlgorithmSide(int socketFd) : mSocketFd(socketFd) {}

    // Serves until told to stop; returns the process exit status.
    int run();

  private:
    int mSocketFd;
};

}  // namespace demo
