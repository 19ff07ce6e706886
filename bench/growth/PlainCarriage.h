// What the machine asks for the bytes of a body, whatever bus there is.
#pragma once

#include <cstddef>

namespace Vantor::Sentrix::Growth {

// p50 in us until so many bytes have gone through two Unix sockets, with a thread between them that has each body whole
// before it sends it on, and one byte has come back. Nothing is copied besides, checked or allocated on the way.
// Fails: std::system_error.
double CarryPlainly(std::size_t bytes, double seconds);

} // namespace Vantor::Sentrix::Growth
