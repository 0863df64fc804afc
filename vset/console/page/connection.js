// The connection to the set: what it tells, orders to it, and finding it again after a reboot.

const kRetry = 400; // ms
const kLostAfter = 3; // failed attempts

export class Connection {
  constructor(handlers) {
    this.handlers = handlers; // {greeting(message), news(message), state(name)}
    this.lastOrder = 0;
    this.waiting = new Map();
    this.failures = 0;
    this.open();
  }

  open() {
    this.socket = new WebSocket(`ws://${location.host}/socket`);
    this.socket.onmessage = (event) => this.take(JSON.parse(event.data));
    this.socket.onclose = () => this.closed();
  }

  take(message) {
    if (message.type === "greeting") {
      this.failures = 0;
      this.handlers.state("connected");
      this.handlers.greeting(message);
    } else if (message.type === "news") {
      this.handlers.news(message);
    } else if (message.type === "reply") {
      this.waiting.get(message.id)?.(message.error);
      this.waiting.delete(message.id);
    }
  }

  closed() {
    this.failures += 1;
    for (const answer of this.waiting.values()) answer("the set does not answer");
    this.waiting.clear();
    this.handlers.state(this.failures > kLostAfter ? "lost" : "connecting");
    setTimeout(() => this.open(), kRetry);
  }

  // Resolves to what is wrong with the order, or null.
  order(name, details = {}) {
    if (this.socket.readyState !== WebSocket.OPEN) return Promise.resolve("the set is not connected");
    const id = ++this.lastOrder;
    this.socket.send(JSON.stringify({id, do: name, ...details}));
    return new Promise((resolve) => this.waiting.set(id, resolve));
  }
}
