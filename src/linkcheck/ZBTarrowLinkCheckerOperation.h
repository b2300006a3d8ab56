#pragma once
// TEMPORARY local stand-in until the real operation is merged. Never commit.
#include "platform/foundation/NSUserDefaults.h"
#include "platform/objectstore/NSManagedObjectContext.h"
#include "platform/operations/ZBConcurrentOperation.h"
class ZBTarrowLinkCheckerOperation final : public ZBConcurrentOperation {
public:
  static std::shared_ptr<ZBTarrowLinkCheckerOperation> create(NSManagedObjectContextPtr context,
                                                              std::shared_ptr<NSUserDefaults> = nullptr) {
    auto op = std::make_shared<ZBTarrowLinkCheckerOperation>();
    op->_context = std::move(context);
    return op;
  }
  Value valueForKey(const std::string& key) const override {
    if (key == "status") return Value("Looking for dead links…");
    return ZBConcurrentOperation::valueForKey(key);
  }
protected:
  void setupOperations(const ZBAddWorkOperation&) override { complete(Value(true)); }
private:
  NSManagedObjectContextPtr _context;
};
