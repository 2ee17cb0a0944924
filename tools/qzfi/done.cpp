#include "tools/qzfi/done.h"

#include <iostream>

#include "tools/qzfi/text.h"

namespace qzfi::tool {

void tell_unheard(const std::string &text) {
    if (!std::cout.flush())
        std::cerr << "qzfi: " << printable(text) << '\n';
}

} // namespace qzfi::tool
