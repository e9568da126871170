#include "Kelvo/ThreadControl.h"

namespace Kelvo {

std::atomic<bool> ThreadControl::tsp_{false};

}  // namespace Kelvo
