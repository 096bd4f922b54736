// SPDX-License-Identifier: Apache-2.0
//
// The route records that the plug-in keeps on purpose, in memory of their own: what malloc() counts is everything else.
#ifndef WFOAL_ENDURANCE_KEPTRECORDS_H
#define WFOAL_ENDURANCE_KEPTRECORDS_H

namespace endurance {

/// Bytes of the records that are there now.
long keptRecordBytes();

}  // namespace endurance

#endif
