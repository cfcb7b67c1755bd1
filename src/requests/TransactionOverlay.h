#pragma once

#include "change/TransactionMngr.h"
#include "store/SQLite.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

/// What a client sees while it has a transaction open: what the store answered, with the queued
/// operations worked in. Everything is copied; the transaction's objects stay as they were queued.
/// An attribute queued for deletion is seen with its deleted flag.
namespace TransactionOverlay {

/// `object` is the stored one or null, and becomes the one that the client sees, or null. An
/// operation counts when `dn` is its object's own pair or full DN, and the instances are equal.
/// Attributes that the object lacks are added; those it has only give way to changed ones.
void overlayObject(const TransactionMngr& transaction, const std::string& dn, std::int32_t MOInstance,
                   std::unique_ptr<DBObject>& object);

/// The same for one attribute. The last operation on the object decides: when its object lacks the
/// attribute (a deletion's always does), what the store answered stays.
void overlayAttribute(const TransactionMngr& transaction, const std::string& dn, const std::string& name,
                      std::unique_ptr<Attribute>& attribute);

/// The same for a list of all objects of a class. Only changed attributes are taken over, and new
/// objects stand at the end.
void overlayClass(const TransactionMngr& transaction, const std::string& moClass, SQLite::Objects& objects);

/// The same for the instances of a class below a parent; they come back in ascending order, each
/// once.
void overlayInstances(const TransactionMngr& transaction, const std::string& parentDn, const std::string& moClass,
                      std::vector<std::string>& instances);

} // namespace TransactionOverlay
