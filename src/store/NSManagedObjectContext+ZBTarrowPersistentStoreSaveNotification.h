#pragma once
// Conversions between a context's did-save notification and its portable
// form, ZBTarrowPersistentStoreNotification, for processes sharing the store
// files. Call each on the queue of the context it is given.
//
// Nothing here reports an error: an entry that cannot be converted (an
// object without an ID, text that is not a URL, a URI no store of the
// context's coordinator knows) is dropped and the rest still converts.

#include <memory>

#include "platform/foundation/NSNotificationCenter.h"
#include "platform/foundation/NSURL.h"
#include "platform/objectstore/NSManagedObjectContext.h"
#include "store/ZBTarrowPersistentStoreNotification.h"

// For each non-empty change set of notification, the URI strings of its
// objects' IDs (permanent after the save) under the same key; named
// NSManagedObjectContextDidSaveNotification.
ZBTarrowPersistentStoreNotificationPtr ZBTarrowCreatePersistentStoreSaveNotificationFromSaveNotification(
    const NSManagedObjectContextPtr& context, const NSNotification& notification);

// A did-save notification (no sender) whose sets hold context's objects for
// the URIs, ready for the context's merge of saved changes. Each object is
// read afresh from the store when it is still there; an object deleted there
// is supplied as the context's object for its ID, so the merge removes it.
// Every non-empty key of the portable form gets a set, even an empty one.
NSNotification ZBTarrowCreateSaveNotificationFromPersistentStoreSaveNotification(
    const NSManagedObjectContextPtr& context, const ZBTarrowPersistentStoreNotification& notification);

// The context's object for the ID named by uri (possibly an unloaded fault);
// null when the coordinator knows no such ID.
std::shared_ptr<NSManagedObject> ZBTarrowManagedObjectForURIRepresentation(const NSManagedObjectContextPtr& context,
                                                                           const NSURL& uri);
// The same object fetched from the store, so that its values are the
// store's; null when the ID is unknown or its row is gone.
std::shared_ptr<NSManagedObject> ZBTarrowFetchCleanManagedObjectForURIRepresentation(
    const NSManagedObjectContextPtr& context, const NSURL& uri);
