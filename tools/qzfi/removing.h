// How images go.
#pragma once

#include "tools/qzfi/images.h"

namespace qzfi::tool {

struct Removing {
    bool says_so = true;      ///< unless nobody wants to hear of it
    bool may_be_gone = false; ///< that somebody else removed it is as good
};

/// Removes the image, or the images of the set, of that whole id. A failure is told, with what is gone and what is left
/// of a set, and its exit code given, as others may go all the same. Throws Failure when a signal came.
int remove_image(const ImageName &name, const Settings &settings, const Removing &how);

} // namespace qzfi::tool
