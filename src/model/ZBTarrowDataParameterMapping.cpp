#include "model/ZBTarrowDataParameterMapping.h"

#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "model/ZBTarrowPinboardPost.h"
#include "platform/pinboardkit/ZBPinboardKit.h"

namespace {

using Mapping = std::unordered_map<std::string, std::string>;

// Service key, model key. The tag title shares the model key "title" with
// the post title on purpose, so that a tag dictionary converts as well.
std::vector<std::pair<std::string, std::string>> mappingRows() {
  return {
      {ZBPinboardPostIdentifierKey, ZBTarrowPinboardPostIdentifierKey},
      {ZBPinboardPostMetaKey, ZBTarrowPinboardPostMetaKey},
      {ZBPinboardPostUsernameKey, ZBTarrowPinboardPostUsernameKey},
      {ZBPinboardPostURLKey, ZBTarrowPinboardPostURLKey},
      {ZBPinboardPostTitleKey, ZBTarrowPinboardPostTitleKey},
      {ZBPinboardPostDescKey, ZBTarrowPinboardPostDescKey},
      {ZBPinboardPostDateKey, ZBTarrowPinboardPostDateKey},
      {ZBPinboardPostUnreadKey, ZBTarrowPinboardPostUnreadKey},
      {ZBPinboardPostSharedKey, ZBTarrowPinboardPostSharedKey},
      {ZBPinboardPostStarredKey, ZBTarrowPinboardPostStarredKey},
      {ZBPinboardPostOthersKey, ZBTarrowPinboardPostOthersKey},
      {ZBPinboardPostTagsKey, ZBTarrowPinboardPostTagsKey},
      {ZBPinboardTagTitleKey, ZBTarrowPinboardPostTitleKey},
  };
}

const Mapping& serviceToModel() {
  static const Mapping mapping = [] {
    Mapping m;
    for (auto& [service, model] : mappingRows()) m[service] = model;
    return m;
  }();
  return mapping;
}

const Mapping& modelToService() {
  // Should the two title keys of the client ever differ, "title" keeps the
  // post title's key: the first row wins.
  static const Mapping mapping = [] {
    Mapping m;
    for (auto& [service, model] : mappingRows()) m.try_emplace(model, service);
    return m;
  }();
  return mapping;
}

Dictionary transformWithMapping(const Dictionary& input, const Mapping& mapping) {
  std::vector<Dictionary::Entry> entries;
  entries.reserve(input.size());
  for (const auto& [key, value] : input) {
    auto it = mapping.find(key);
    if (it != mapping.end()) entries.emplace_back(it->second, value);
  }
  // Two keys mapping to one: the later entry wins, as in the input's order.
  return Dictionary::fromEntries(std::move(entries));
}

}  // namespace

Dictionary ZBTarrowDataConvertPinboardParametersToModelProperties(const Dictionary& parameters) {
  return transformWithMapping(parameters, serviceToModel());
}

Dictionary ZBTarrowDataConvertModelPropertiesToPinboardParameters(const Dictionary& properties) {
  return transformWithMapping(properties, modelToService());
}
