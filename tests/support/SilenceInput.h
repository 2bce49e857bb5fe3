#pragma once
#include "tests/support/Fake.h"  // with the other input and output fakes
