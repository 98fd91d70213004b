@0xc4b1d6e2a9f07e31;

# The agent's one remote interface: any object is called by selector with positional arguments.
# Selectors keep their colons ("setErrorCallback:").

$import "/capnp/c++.capnp".namespace("kestrin::transport::wire");

interface RemoteObject {
  # A callee's exception travels in `raised` (its name and reason) rather than as an RPC
  # failure, so that the caller can rethrow it under the same name; RPC failures are kept for
  # the transport's own troubles.
  invoke @0 (selector :Text, arguments :List(Value)) -> (result :Value, raised :Raised);
  respondsTo @1 (selector :Text) -> (responds :Bool);
}

struct Raised {
  name @0 :Text;   # empty: nothing was raised
  reason @1 :Text;
}

struct Value {
  union {
    null @0 :Void;
    boolean @1 :Bool;
    integer @2 :Int64;
    real @3 :Float64;
    string @4 :Text;
    data @5 :Data;
    date @6 :Float64;   # seconds since 2001-01-01 00:00:00 UTC
    array @7 :List(Value);
    dictionary @8 :List(Entry);
    error @9 :ErrorValue;
    object @10 :RemoteObject;
  }
}

struct Entry {
  key @0 :Text;
  value @1 :Value;
}

struct ErrorValue {
  domain @0 :Text;
  code @1 :Int64;
  userInfo @2 :List(Entry);
}
