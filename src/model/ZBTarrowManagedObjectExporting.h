#pragma once
// The two protocols the model's entities share.
//
// ZBTarrowManagedObjectExporting: conversion of an entity to and from a plain
// dictionary keyed by attribute name (backups, the sync engine, the search
// operation read and write objects this way). Dictionaries never hold the
// null marker.
//
// ZBTarrowPinboardObject: the two flags that drive synchronisation. `dirty`
// marks local changes not yet sent to the service; `deleting` marks an object
// the user deleted locally whose deletion is not yet confirmed (it stays in
// the store until then, and collection counts leave it out).
//
// Thread-safety: like the managed objects adopting them, use only on the
// owning context's queue.

#include <string>

#include "platform/foundation/NSError.h"
#include "platform/foundation/Value.h"

class NSManagedObject;

extern const std::string ZBTarrowPinboardObjectDirtyKey;     // "dirty"
extern const std::string ZBTarrowPinboardObjectDeletingKey;  // "deleting"

class ZBTarrowManagedObjectExporting {
public:
  virtual ~ZBTarrowManagedObjectExporting() = default;
  // The object's values keyed by attribute name, absent values left out.
  virtual Dictionary dictionaryRepresentation() const = 0;
  // Sets the object's values from such a dictionary. Keys must be attribute
  // names; an unknown key is a programming error (std::logic_error, thrown
  // before anything changes). A value of the wrong kind for its key (outside
  // data may hold one) is skipped and the rest applied; the result is then
  // false and *error holds the refusals (see
  // NSManagedObject::setValuesForKeysWithDictionary).
  virtual bool updateWithDictionaryRepresentation(const Dictionary& dictionary, NSErrorPtr* error = nullptr) = 0;
};

class ZBTarrowPinboardObject : public ZBTarrowManagedObjectExporting {
public:
  virtual bool deleting() const = 0;
  virtual void setDeleting(bool deleting) = 0;
  virtual bool dirty() const = 0;
  virtual void setDirty(bool dirty) = 0;
};

// Every stored attribute of object's entity under its name, absent and null
// values left out (relationships are not attributes).
Dictionary ZBTarrowStoredAttributesDictionary(const NSManagedObject& object);
