// The SOAP envelope's own parts (Header, Fault) for gSOAP's runtime. Each service's stubs live in a C++ namespace
// of their own; the runtime needs these serialisers once, in the global namespace. Nothing to declare: soapcpp2
// adds the envelope's types by itself.
