#include "veyrasvc/stream/DataStream.h"
#include "veyrasvc/stream/SimpleStream.h"

template std::vector<std::string> Vantor::Sentrix::DeserializeFromString(std::string bytes);
