// The files that a running daemon has: its directory, the lock that makes it the only one there,
// its socket.
#pragma once
#include <sys/types.h>

#include <stdexcept>
#include <string>

#include "host/unique_fd.h"

namespace ds::host {

// A start that cannot go on; the text is for the operator.
class StartError : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Makes the directory if it is missing and takes its lock. The lock is held until the object goes;
// the lock file stays, since removing it would let two daemons lock two files of one name. Throws
// StartError.
class RuntimeDirectory {
  public:
    explicit RuntimeDirectory(const std::string &path);

  private:
    UniqueFd lock_;
};

// Makes a directory with its parents, mode 0755, unless it exists. Throws StartError.
void make_directory(const std::string &path);

// Who may connect: whom the permissions of the socket file let write.
struct SocketAccess {
    mode_t mode = 0666;
    gid_t group = static_cast<gid_t>(-1); // left as it is
};

// A listening socket. A socket file that a dead daemon left is replaced; that of a living one is
// not. Throws StartError.
UniqueFd listen_at(const std::string &path, const SocketAccess &access = {});

} // namespace ds::host
