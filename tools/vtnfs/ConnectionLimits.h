#pragma once

#include <cstdint>

// What a connection to either of the engine's ports may hold and for how
// long. Both ports listen on loopback only, but anything on the machine can
// connect; none of these may bite the application's own clients.
namespace vtnfs::limits {

// NFS port. A record sent half is dropped with its connection after this.
inline constexpr double kNfsHalfSentSeconds = 30;
// A connection with no call in flight and nothing received for this long is
// closed. The kernel's NFS client drops an idle connection after 5 minutes on
// its own, and it and libnfs (autoreconnect) connect again when they next
// need to, so this only clears connections whose client went away unseen.
inline constexpr double kNfsIdleSeconds = 600;

// Control port. The request line and headers together.
inline constexpr int64_t kControlMaxHeaderBytes = 16 << 10;
// A request body; the largest the application sends is a list of names.
inline constexpr int64_t kControlMaxBodyBytes = 1 << 20;
// A keep-alive connection between requests. The application's client drops a
// connection it hasn't used for 120 seconds itself, so the engine never
// closes one under it.
inline constexpr double kControlIdleSeconds = 150;
// From the first byte of a request to its last; loopback clients take
// milliseconds.
inline constexpr double kControlHalfSentSeconds = 10;
// After a reply that closes the connection, what the client still sends is
// read and dropped, up to this much for this long, so that the reply reaches
// a client still sending its body instead of being lost to a reset.
inline constexpr double kControlLingerSeconds = 2;
inline constexpr int64_t kControlLingerBytes = 1 << 20;
// Replies not yet taken by a client: past this, its next requests wait.
inline constexpr int64_t kControlMaxUnsentBytes = 4 << 20;

}  // namespace vtnfs::limits
