<?php

declare(strict_types=1);

namespace Quorvex\Authority;

/** The named texts of one request; an action takes from them what it declares. */
final class Fields
{
    /** @var array<string, string> what actions have taken so far */
    private array $taken = [];

    /** @var array<string, true> the names that somebody has asked for and that are there */
    private array $known = [];

    /**
     * @param array<array-key, mixed> $values as they came in, not yet checked
     * @param bool $isComplete whether all of them must be known
     */
    public function __construct(
        #[\SensitiveParameter] private readonly array $values,
        private readonly bool $isComplete = false
    ) {
    }

    public function isEmpty(): bool
    {
        return $this->values === [];
    }

    public function has(string $name): bool
    {
        return isset($this->values[$name]);
    }

    /** The text of a field that must be there, unchecked and unrecorded: for credentials and the action. */
    public function raw(string $name): string
    {
        if (!$this->has($name)) {
            throw new Refusal(Fault::BadField, "The field \"$name\" is missing.");
        }
        $this->known[$name] = true;
        if (!is_string($this->values[$name])) {
            throw new Refusal(Fault::BadField, "The field \"$name\" must be given once, as a text.");
        }
        return $this->values[$name];
    }

    /** The text of a field that must be there and be of a kind. */
    public function text(string $name, FieldKind $kind): string
    {
        $value = $this->raw($name);
        if (preg_match($kind->pattern(), $value) !== 1) {
            throw new Refusal(Fault::BadField, "The field \"$name\" must be {$kind->rule()}.");
        }
        return $this->taken[$name] = $value;
    }

    /** The text of a field that may be absent, then the empty text. */
    public function optional(string $name, FieldKind $kind): string
    {
        return $this->has($name) ? $this->text($name, $kind) : '';
    }

    /** The value of a decimal field that must be there. */
    public function number(string $name): int
    {
        return (int) $this->text($name, FieldKind::Number);
    }

    /**
     * Called when an action has read all that it knows. What else is there came
     * about by a "&" in a value, which the request text cannot express: the
     * value would be cut short. The name is not repeated, being part of a value.
     */
    public function finish(): void
    {
        if ($this->isComplete && array_diff_key($this->values, $this->known) !== []) {
            throw new Refusal(
                Fault::BadField,
                'The request text has a field that its action does not know; no value may hold a "&".'
            );
        }
    }

    /**
     * What actions took. Credentials are never among it, nor a field under a
     * name that no action knows (a misspelt "passwd", say): this may be logged.
     *
     * @return array<string, string>
     */
    public function taken(): array
    {
        return $this->taken;
    }
}
