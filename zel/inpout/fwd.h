// Forward declarations of the stream classes, for headers that only name them.
#ifndef ZEL_INPOUT_FWD_H
#define ZEL_INPOUT_FWD_H

namespace zel {
namespace inpout {
class ioconn;
class stream;
class obinstream;
class ibinstream;
}  // namespace inpout
}  // namespace zel

#endif
