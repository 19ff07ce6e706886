#include "veyrasvc/stream/FileItems.h"
