#pragma once
// Renaming the keys of a bookmark dictionary between the service client's
// vocabulary (ZBPinboardPost…Key, ZBPinboardTagTitleKey) and the model's
// attribute names. Only keys are renamed: values pass through untouched (the
// same containers), and keys outside the table are dropped. The store-local
// keys (dead, source, deleting, dirty, host, sortedTagTitles, editable) never
// cross.
//
// Thread-safe: the two lookup tables are built once per process.

#include "platform/foundation/Value.h"

Dictionary ZBTarrowDataConvertPinboardParametersToModelProperties(const Dictionary& parameters);
Dictionary ZBTarrowDataConvertModelPropertiesToPinboardParameters(const Dictionary& properties);
