// How images go.
#pragma once

#include "tools/qzfi/images.h"

namespace qzfi::tool {

/// Removes the image, or the images of the set, of that whole id; says so where `says_so` and nobody wants quiet. A
/// failure is told and its exit code given, as others may go all the same. Throws Failure when a signal came.
int remove_image(const ImageName &name, const Settings &settings, bool says_so);

} // namespace qzfi::tool
