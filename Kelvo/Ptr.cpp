#include "Kelvo/Ptr.h"

namespace Kelvo {

Counted::~Counted() = default;

}  // namespace Kelvo
