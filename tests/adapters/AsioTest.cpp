#include "tests/adapters/AsioHost.h"

#include "tests/adapters/LoopSuite.h"

INSTANTIATE_TYPED_TEST_SUITE_P(AsioAdapter, Adapter, AsioHost, Numbered);
