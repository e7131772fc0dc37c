// version(): the library's version string.
#include "zel/tessel3d.h"

namespace zel {
namespace tessel3d {

const char* version() { return "5.5.0.0"; }

}  // namespace tessel3d
}  // namespace zel
