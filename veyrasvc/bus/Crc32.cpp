#include "veyrasvc/bus/Crc32.h"

#include <libdeflate.h>

namespace Vantor::Sentrix {

std::uint32_t Crc32(const void* bytes, std::size_t count) {
    return libdeflate_crc32(0, bytes, count);
}

} // namespace Vantor::Sentrix
