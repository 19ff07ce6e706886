#include "veyrasvc/stream/HashUtils.h"
