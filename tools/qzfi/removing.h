// How images go.
#pragma once

#include "tools/qzfi/images.h"

namespace qzfi::tool {

/// Removes the image, or the images of the set, of that whole id. Throws Failure.
void remove_image(const ImageName &name);

} // namespace qzfi::tool
