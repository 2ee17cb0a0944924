/*
 * qzfi: the client side of a framework for frozen images, point-in-time copies of file systems, devices and volumes.
 *
 * This umbrella is the one header to include. It is C11 and C++17 clean.
 */
#ifndef QZFI_H
#define QZFI_H

#include <qzfi/catalogs.h>
#include <qzfi/context.h>
#include <qzfi/dump.h>
#include <qzfi/errors.h>
#include <qzfi/frontend.h>
#include <qzfi/log.h>
#include <qzfi/messages.h>
#include <qzfi/objectid.h>
#include <qzfi/paths.h>
#include <qzfi/plugin.h>
#include <qzfi/records.h>
#include <qzfi/settings.h>
#include <qzfi/status.h>
#include <qzfi/system.h>
#include <qzfi/version.h>

#endif
