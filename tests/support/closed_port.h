// A loopback TCP port with nobody listening on it, for tests of a peer that
// refuses the connection.
#ifndef PLCDRIVER_TEST_CLOSED_PORT_H
#define PLCDRIVER_TEST_CLOSED_PORT_H

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

// The port the kernel handed a socket that was bound and closed again; no
// one else takes it within the test.
inline int closed_port()
{
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a);
    socklen_t len = sizeof a;
    ::getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len);
    ::close(fd);
    return ntohs(a.sin_port);
}

#endif
