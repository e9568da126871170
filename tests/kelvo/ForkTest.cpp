#include "tests/support/Support.h"
