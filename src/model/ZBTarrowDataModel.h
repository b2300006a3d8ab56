#pragma once
// The object model of the library's stores: entities PinboardPost and
// PinboardTag in configuration "Pinboard" (the service's data, forgotten on
// logout), Collection and Search in configuration "Tarrow" (the
// application's own sidebar items, kept across logout).
//
// Thread-safety: thread-safe; each call builds a new model.

#include <memory>
#include <string>

#include "platform/objectstore/NSManagedObjectModel.h"

extern const std::string ZBTarrowDataPinboardConfigurationName;  // "Pinboard"
extern const std::string ZBTarrowDataTarrowConfigurationName;    // "Tarrow"

// A new model, its entities bound to the model's classes
// (ZBTarrowPinboardPost, ZBTarrowPinboardTag, ZBTarrowCollection,
// ZBTarrowSearch). Boolean attributes never set read as NO; a post needs a
// url; everything else is optional.
std::shared_ptr<NSManagedObjectModel> ZBTarrowDataCreateManagedObjectModel();
