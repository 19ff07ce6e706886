#include "veyrasvc/bus/Crc32.h"

#include <isa-l/crc.h>

namespace Vantor::Sentrix {

std::uint32_t Crc32(const void* bytes, std::size_t count) {
    return crc32_gzip_refl(0, static_cast<const unsigned char*>(bytes), count);
}

} // namespace Vantor::Sentrix
