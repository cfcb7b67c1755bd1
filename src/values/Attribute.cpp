// The attribute container: value changes are noticed here and nowhere else.

#include "values/Attribute.h"

#include "values/ValueType.h"

#include <utility>

Attribute::Attribute(bool isHidden, std::string attributeName, Value initial, std::int32_t boamId, bool isPersistent,
                     std::int32_t declaredType, bool isChanged, bool isDeleted)
    : value(std::move(initial)),
      boamAttrId(boamId),
      persistent(isPersistent),
      name(std::move(attributeName)),
      changed(isChanged),
      deleted(isDeleted),
      type(declaredType),
      hidden(isHidden)
{}

void Attribute::SetValue(Value newValue)
{
    if (value == newValue)
        return;
    value = std::move(newValue);
    changed = true;
}

void Attribute::SetValue(const std::string& text, std::int32_t newType)
{
    auto parsed = parseValue(text, newType);
    if (!parsed)
        return;
    type = newType;
    SetValue(std::move(*parsed));
}

std::string Attribute::ToStr() const { return valueText(value); }
