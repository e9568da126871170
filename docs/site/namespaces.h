// Documentation only: what the namespaces are for.

/// The library: servers, their connections, clients and messages.
namespace Tovik {
/// Ready-made rules for a server's validator.
namespace Admission {}
}  // namespace Tovik

/// The base library: strings, counted handles and exceptions.
namespace Kelvo {
/// The event loop, and the debug channels.
namespace Platform {}
/// The event loop inside foreign ones.
namespace Adapters {}
}  // namespace Kelvo
