// Ahead-of-time compilers find the managed methods that native code calls by this
// attribute's name. Engines that ship one (Unity) keep theirs.
#if !UNITY_5_3_OR_NEWER
namespace AOT
{
    [System.AttributeUsage(System.AttributeTargets.Method)]
    internal sealed class MonoPInvokeCallbackAttribute : System.Attribute
    {
        public MonoPInvokeCallbackAttribute(System.Type delegateType) { DelegateType = delegateType; }
        public System.Type DelegateType { get; private set; }
    }
}
#endif
