#include <gtest/gtest.h>

#include "model/ZBTarrowDataParameterMapping.h"
#include "model/ZBTarrowPinboardPost.h"
#include "model/ZBTarrowPinboardTag.h"
#include "platform/pinboardkit/ZBPinboardKit.h"

namespace {

Dictionary servicePost() {
  return Dictionary{{ZBPinboardPostIdentifierKey, Value("0123456789abcdef0123456789abcdef")},
                    {ZBPinboardPostMetaKey, Value("meta-1")},
                    {ZBPinboardPostUsernameKey, Value("maciej")},
                    {ZBPinboardPostURLKey, Value("https://example.org/")},
                    {ZBPinboardPostTitleKey, Value("Example")},
                    {ZBPinboardPostDescKey, Value("Notes")},
                    {ZBPinboardPostDateKey, Value(NSDate(700000000))},
                    {ZBPinboardPostUnreadKey, Value(true)},
                    {ZBPinboardPostSharedKey, Value(false)},
                    {ZBPinboardPostStarredKey, Value(true)},
                    {ZBPinboardPostOthersKey, Value(12)},
                    {ZBPinboardPostTagsKey, Value(Array{Value("a"), Value("b")})}};
}

}  // namespace

TEST(ParameterMapping, RoundTripKeepsEveryServiceKeyAndValueTypes) {
  const Dictionary service = servicePost();
  const Dictionary model = ZBTarrowDataConvertPinboardParametersToModelProperties(service);
  EXPECT_EQ(model.size(), service.size());
  EXPECT_EQ(model[ZBTarrowPinboardPostURLKey], Value("https://example.org/"));
  EXPECT_TRUE(model[ZBTarrowPinboardPostUnreadKey].isBool());
  EXPECT_TRUE(model[ZBTarrowPinboardPostDateKey].isDate());
  EXPECT_TRUE(model[ZBTarrowPinboardPostOthersKey].isInteger());
  const Dictionary back = ZBTarrowDataConvertModelPropertiesToPinboardParameters(model);
  EXPECT_EQ(back, service);
  for (const auto& [key, value] : back) EXPECT_EQ(value.type(), service[key].type()) << key;
}

TEST(ParameterMapping, StoreLocalKeysNeverCrossAndEmptyStaysEmpty) {
  EXPECT_TRUE(ZBTarrowDataConvertPinboardParametersToModelProperties({}).empty());
  EXPECT_TRUE(ZBTarrowDataConvertModelPropertiesToPinboardParameters({}).empty());

  Dictionary local{{ZBTarrowPinboardPostDeadKey, Value(true)},
                   {ZBTarrowPinboardPostSourceKey, Value(3)},
                   {ZBTarrowPinboardObjectDeletingKey, Value(true)},
                   {ZBTarrowPinboardObjectDirtyKey, Value(true)},
                   {ZBTarrowPinboardPostHostKey, Value("example.org")},
                   {ZBTarrowPinboardPostSortedTagTitlesKey, Value(Array{})},
                   {ZBTarrowPinboardPostEditableKey, Value(true)},
                   {ZBTarrowPinboardPostURLKey, Value("https://example.org/")}};
  const Dictionary service = ZBTarrowDataConvertModelPropertiesToPinboardParameters(local);
  EXPECT_EQ(service, (Dictionary{{ZBPinboardPostURLKey, Value("https://example.org/")}}));
  // Unknown service keys are dropped too.
  EXPECT_TRUE(ZBTarrowDataConvertPinboardParametersToModelProperties({{"hash", Value("x")}, {"dead", Value(true)}})
                  .empty());
}

TEST(ParameterMapping, ValuesPassThroughAsTheSameContainers) {
  Value tags(Set{Value("swift"), Value("c++")});
  Dictionary model{{ZBTarrowPinboardPostTagsKey, tags}, {ZBTarrowPinboardPostTitleKey, Value("Post title")}};
  const Dictionary service = ZBTarrowDataConvertModelPropertiesToPinboardParameters(model);
  ASSERT_TRUE(service[ZBPinboardPostTagsKey].isSet());
  EXPECT_EQ(&service[ZBPinboardPostTagsKey].asSet(), &tags.asSet());
  // A post's title goes out under the post title key.
  EXPECT_EQ(service[ZBPinboardPostTitleKey], Value("Post title"));

  // A tag dictionary from the service converts to the tag's title.
  const Dictionary tag = ZBTarrowDataConvertPinboardParametersToModelProperties({{ZBPinboardTagTitleKey, Value("swift")}});
  EXPECT_EQ(tag, (Dictionary{{ZBTarrowPinboardTagTitleKey, Value("swift")}}));
}
