#include "platform/objectstore/NSPropertyDescription.h"

#include <limits>
#include <stdexcept>

#include "platform/objectstore/NSEntityDescription.h"

void NSPropertyDescription::_checkMutable() const {
  if (_frozen) throw std::logic_error("property '" + _name + "' belongs to a model in use and cannot change");
}

void NSPropertyDescription::setOptional(bool optional) {
  _checkMutable();
  _optional = optional;
}

void NSPropertyDescription::setIndexed(bool indexed) {
  _checkMutable();
  _indexed = indexed;
}

const char* NSAttributeTypeName(NSAttributeType type) {
  switch (type) {
    case NSAttributeType::Integer16: return "int16";
    case NSAttributeType::Integer32: return "int32";
    case NSAttributeType::Integer64: return "int64";
    case NSAttributeType::Double: return "double";
    case NSAttributeType::String: return "string";
    case NSAttributeType::Boolean: return "bool";
    case NSAttributeType::Date: return "date";
    case NSAttributeType::Binary: return "binary";
    case NSAttributeType::Transformable: return "transformable";
  }
  return "?";
}

std::shared_ptr<NSAttributeDescription> NSAttributeDescription::create(std::string name, NSAttributeType type,
                                                                       NSAttributeOptions options) {
  auto attribute = std::make_shared<NSAttributeDescription>(std::move(name), type);
  attribute->setOptional(options.optional);
  attribute->setIndexed(options.indexed);
  attribute->setDefaultValue(std::move(options.defaultValue));
  return attribute;
}

void NSAttributeDescription::setDefaultValue(Value value) {
  _checkMutable();
  if (value.isAbsent() || value.isNull()) {
    _defaultValue = Value();
    return;
  }
  auto coerced = coercedValue(value);
  if (!coerced) {
    throw std::logic_error("default value " + value.description() + " does not fit attribute '" + name() + "' of type " +
                           NSAttributeTypeName(_type));
  }
  _defaultValue = std::move(*coerced);
}

std::optional<Value> NSAttributeDescription::coercedValue(const Value& value) const {
  if (value.isAbsent() || value.isNull()) return Value();
  switch (_type) {
    case NSAttributeType::Integer16:
      if (!value.isNumber()) return std::nullopt;
      return Value(static_cast<std::int64_t>(static_cast<std::int16_t>(value.integerValue())));
    case NSAttributeType::Integer32:
      if (!value.isNumber()) return std::nullopt;
      return Value(static_cast<std::int64_t>(static_cast<std::int32_t>(value.integerValue())));
    case NSAttributeType::Integer64:
      if (!value.isNumber()) return std::nullopt;
      if (value.isInteger()) return value;
      return Value(value.integerValue());
    case NSAttributeType::Double:
      if (!value.isNumber()) return std::nullopt;
      if (value.isDouble()) return value;
      return Value(value.doubleValue());
    case NSAttributeType::Boolean:
      if (!value.isNumber()) return std::nullopt;
      if (value.isBool()) return value;
      return Value(value.boolValue());
    case NSAttributeType::String:
      if (!value.isString()) return std::nullopt;
      return value;
    case NSAttributeType::Date:
      if (!value.isDate()) return std::nullopt;
      return value;
    case NSAttributeType::Binary:
      if (!value.isData()) return std::nullopt;
      return value;
    case NSAttributeType::Transformable:
      return value;
  }
  return std::nullopt;
}

std::string NSAttributeDescription::description() const {
  return "<NSAttributeDescription " + name() + " " + NSAttributeTypeName(_type) + (isOptional() ? " optional" : "") + ">";
}

std::shared_ptr<NSRelationshipDescription> NSRelationshipDescription::create(std::string name,
                                                                             std::string destinationEntityName,
                                                                             NSRelationshipOptions options) {
  return std::make_shared<NSRelationshipDescription>(std::move(name), std::move(destinationEntityName), options);
}

NSRelationshipDescription::NSRelationshipDescription(std::string name, std::string destination,
                                                     const NSRelationshipOptions& options)
    : NSPropertyDescription(std::move(name)),
      _destinationName(std::move(destination)),
      _inverseName(options.inverseName),
      _toMany(options.toMany),
      _deleteRule(options.deleteRule) {
  setOptional(options.optional);
}

void NSRelationshipDescription::setDeleteRule(NSDeleteRule rule) {
  _checkMutable();
  _deleteRule = rule;
}

bool NSRelationshipDescription::isManyToMany() const {
  auto inverse = inverseRelationship();
  return _toMany && inverse && inverse->isToMany();
}

std::string NSRelationshipDescription::description() const {
  return "<NSRelationshipDescription " + name() + (_toMany ? " to-many " : " to-one ") + _destinationName + ">";
}
