// The contexts that the library hands back to the binding's callbacks: numbers that name a
// weakly held object, not GC handles. A call that comes after its Card was disposed or collected
// finds nothing and returns; a freed GC handle would crash the runtime instead.
using System;
using System.Collections.Generic;

namespace KvPCIe
{
    internal static class CallbackContexts
    {
        private static readonly object lock_ = new object();
        private static readonly Dictionary<long, WeakReference> targets_ =
            new Dictionary<long, WeakReference>();
        private static long next_;

        // A new number for `target`, held weakly: the library's holding it keeps nothing alive.
        internal static IntPtr Add(object target)
        {
            lock (lock_)
            {
                long number = ++next_;
                targets_[number] = new WeakReference(target);
                return new IntPtr(number);
            }
        }

        // The object of a number, or null once it was removed or collected. Per frame: a lookup
        // under a lock, nothing allocated.
        internal static object Find(IntPtr context)
        {
            lock (lock_)
            {
                WeakReference target;
                return targets_.TryGetValue(context.ToInt64(), out target) ? target.Target : null;
            }
        }

        internal static void Remove(IntPtr context)
        {
            lock (lock_)
            {
                targets_.Remove(context.ToInt64());
            }
        }
    }
}
