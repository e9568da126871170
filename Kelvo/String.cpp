#include "Kelvo/String.h"

#include <ostream>

namespace Kelvo {

std::ostream& operator<<(std::ostream& out, const String& string) {
  return out << std::string_view(string);
}

}  // namespace Kelvo
