// A lock joined with one standard container. The owner holds the object itself, through an AutoLock, around every
// access to m_items; nothing here locks by itself.
#pragma once

#include "veyrasvc/util/Locks.h"

#include <list>
#include <map>
#include <queue>

namespace Vantor::Sentrix {

template <class Container> class LockedContainer : public CommonLock {
public:
    Container m_items VEYRA_GUARDED_BY(this);
};

template <class T> using LockQueue = LockedContainer<std::queue<T>>;
template <class T> using LockList = LockedContainer<std::list<T>>;
template <class K, class V> using LockMap = LockedContainer<std::map<K, V>>;

} // namespace Vantor::Sentrix
