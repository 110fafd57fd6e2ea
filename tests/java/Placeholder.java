class Placeholder {}
